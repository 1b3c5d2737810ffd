/* A library that needs a word among the thread-local words that the C library sets aside when a process starts. */

static __thread long word __attribute__((tls_model("initial-exec")));

long* static_tls_word(void) {
    return &word;
}
