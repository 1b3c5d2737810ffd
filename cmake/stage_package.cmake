# Script: makes PACKAGE_FOLDER hold exactly the files of SOURCE_FOLDER and vorntracer/ with MODULE_FILE in it.

cmake_minimum_required(VERSION 3.25)

# Put a file in place in one step, so that a process that runs from the package keeps the file it has mapped.
function(install_file source destination)
  file(COPY_FILE ${source} ${destination}.new)
  file(RENAME ${destination}.new ${destination})
endfunction()

function(install_if_different source destination)
  if(EXISTS ${destination})
    file(SHA256 ${source} wanted)
    file(SHA256 ${destination} found)
    if(wanted STREQUAL found)
      return()
    endif()
  endif()
  cmake_path(GET destination PARENT_PATH folder)
  file(MAKE_DIRECTORY ${folder})
  install_file(${source} ${destination})
endfunction()

file(GLOB_RECURSE wanted_files LIST_DIRECTORIES false RELATIVE ${SOURCE_FOLDER} ${SOURCE_FOLDER}/*)
list(FILTER wanted_files EXCLUDE REGEX "(^|/)__pycache__/|\\.pyc$")
foreach(name IN LISTS wanted_files)
  install_if_different(${SOURCE_FOLDER}/${name} ${PACKAGE_FOLDER}/${name})
endforeach()

set(module_name vorntracer/xoptmonitoring.so)
install_if_different(${MODULE_FILE} ${PACKAGE_FOLDER}/${module_name})

# Cached byte code is left alone beside modules that still exist; a folder that has vanished goes as a whole.
file(GLOB_RECURSE staged_files LIST_DIRECTORIES true RELATIVE ${PACKAGE_FOLDER} ${PACKAGE_FOLDER}/*)
list(FILTER staged_files EXCLUDE REGEX "(^|/)__pycache__(/|$)")
foreach(name IN LISTS staged_files)
  set(is_wanted FALSE)
  if(IS_DIRECTORY ${PACKAGE_FOLDER}/${name})
    if(IS_DIRECTORY ${SOURCE_FOLDER}/${name} OR name STREQUAL "vorntracer")
      set(is_wanted TRUE)
    endif()
  elseif(name STREQUAL module_name OR name IN_LIST wanted_files)
    set(is_wanted TRUE)
  endif()
  if(NOT is_wanted)
    file(REMOVE_RECURSE ${PACKAGE_FOLDER}/${name})
  endif()
endforeach()
