/* The name that missing_name_test.cpp leaves out, in a library that is loaded later. */

void* PyDict_Keys(void* dict);

void* PyDict_Keys(void* dict) {
    return dict;
}
