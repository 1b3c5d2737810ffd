# Compiler and linker settings: what every target is built with, and what only the module is.

set(oldest_GNU 12)
set(oldest_Clang 14)
if(NOT DEFINED oldest_${CMAKE_CXX_COMPILER_ID})
  message(FATAL_ERROR "Build with g++ or clang++, not with ${CMAKE_CXX_COMPILER_ID}.")
elseif(CMAKE_CXX_COMPILER_VERSION VERSION_LESS oldest_${CMAKE_CXX_COMPILER_ID})
  message(FATAL_ERROR "${CMAKE_CXX_COMPILER} is version ${CMAKE_CXX_COMPILER_VERSION}; "
                      "g++ ${oldest_GNU} or clang++ ${oldest_Clang} is the oldest that will do.")
endif()

# For module and tests alike.
add_library(xoptmonitoring_build_flags INTERFACE)
target_compile_options(
  xoptmonitoring_build_flags INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Werror)

# The module's own dialect. Exceptions, type information and guarded statics would each need the C++ run-time
# library. Unwind tables stay, so that a debugger can walk through the module's frames.
set(XOPT_MODULE_COMPILE_OPTIONS
    -fvisibility=hidden
    -fvisibility-inlines-hidden
    -fno-exceptions
    -fno-rtti
    -fno-threadsafe-statics
    -fno-semantic-interposition)

# Two of the words that each thread has of its own (records/) are read on every event. Through a descriptor that is a call
# of two instructions while the C library has room set aside for such words of libraries that are loaded later, and a
# longer one once others have used that up. To read them without a call takes that room, and the import fails where
# there is none. A compiler that knows no descriptors calls the C library each time.
#
# The compiler takes it that the longer call keeps all registers but one. Before 2.39 the C library keeps the general
# ones only (https://sourceware.org/bugzilla/show_bug.cgi?id=31372), so what reads such a word uses no others.
#
# Not among the options above, since the fuzz targets have a compiler of their own.
include(CheckCXXCompilerFlag)
check_cxx_compiler_flag(-mtls-dialect=gnu2 XOPT_HAS_TLS_DESCRIPTORS)
check_cxx_compiler_flag(-mgeneral-regs-only XOPT_HAS_GENERAL_REGISTERS_ONLY)
set(XOPT_TLS_OPTIONS)
set(XOPT_TLS_READER_OPTIONS)
if(XOPT_HAS_TLS_DESCRIPTORS AND XOPT_HAS_GENERAL_REGISTERS_ONLY)
  set(XOPT_TLS_OPTIONS -mtls-dialect=gnu2)
  set(XOPT_TLS_READER_OPTIONS -mgeneral-regs-only)
endif()

if(NOT XOPT_SANITIZE)
  # Nothing to add
elseif(XOPT_SANITIZE STREQUAL thread)
  # The run-time library is the interpreter's own, or the test program's; there can be one only in a process.
  if(NOT CMAKE_CXX_COMPILER_ID STREQUAL Clang)
    message(FATAL_ERROR "The thread sanitizer needs clang, as the interpreters have that are built with it.")
  endif()
  target_compile_options(xoptmonitoring_build_flags INTERFACE -fsanitize=thread -fno-omit-frame-pointer)
  target_link_options(xoptmonitoring_build_flags INTERFACE -fsanitize=thread)
elseif(XOPT_SANITIZE STREQUAL address)
  # vptr checking needs type information, which the module does not have.
  target_compile_options(
    xoptmonitoring_build_flags
    INTERFACE -fsanitize=address,undefined -fno-sanitize=vptr -fno-sanitize-recover=undefined
              -fno-omit-frame-pointer)
  target_link_options(xoptmonitoring_build_flags INTERFACE -fsanitize=address,undefined)
  if(CMAKE_CXX_COMPILER_ID STREQUAL Clang)
    target_link_options(xoptmonitoring_build_flags INTERFACE -shared-libsan)
    set(sanitizer_runtime libclang_rt.asan-${CMAKE_SYSTEM_PROCESSOR}.so)
  else()
    set(sanitizer_runtime libasan.so)
  endif()
  # An interpreter was not built with the sanitizer, so the run-time library has to be there before it.
  execute_process(
    COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=${sanitizer_runtime}
    OUTPUT_VARIABLE XOPT_SANITIZER_RUNTIME
    OUTPUT_STRIP_TRAILING_WHITESPACE)
  execute_process(
    COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=libstdc++.so
    OUTPUT_VARIABLE XOPT_CXX_RUNTIME
    OUTPUT_STRIP_TRAILING_WHITESPACE)
  if(NOT EXISTS ${XOPT_SANITIZER_RUNTIME})
    message(FATAL_ERROR "${CMAKE_CXX_COMPILER} has no ${sanitizer_runtime}; install its sanitizer libraries.")
  endif()
  cmake_path(GET XOPT_SANITIZER_RUNTIME PARENT_PATH sanitizer_folder)
  set(CMAKE_BUILD_RPATH ${sanitizer_folder})
else()
  message(FATAL_ERROR "XOPT_SANITIZE is OFF, address or thread, not ${XOPT_SANITIZE}.")
endif()

# Link-time optimisation lets the road of an event be inlined across files. Only optimised builds have it, and
# only where compiler and linker agree on it.
if(CMAKE_BUILD_TYPE STREQUAL RelWithDebInfo AND NOT XOPT_SANITIZE)
  include(CheckIPOSupported)
  check_ipo_supported(RESULT XOPT_LINK_TIME_OPTIMISATION LANGUAGES CXX OUTPUT ipo_failure)
  if(NOT XOPT_LINK_TIME_OPTIMISATION)
    message(STATUS "No link-time optimisation: compiler and linker do not support it together")
  endif()
endif()

function(xopt_enable_link_time_optimisation target)
  if(XOPT_LINK_TIME_OPTIMISATION)
    set_property(TARGET ${target} PROPERTY INTERPROCEDURAL_OPTIMIZATION ON)
  endif()
endfunction()

# Hide C++ names: the standard library's headers give their templates default visibility, and such an
# instantiation must not be offered to the rest of the process.
function(xopt_hide_cxx_names target)
  set(script ${PROJECT_SOURCE_DIR}/cmake/hide_cxx_names.map)
  target_link_options(${target} PRIVATE LINKER:--version-script=${script})
  set_property(TARGET ${target} APPEND PROPERTY LINK_DEPENDS ${script})
endfunction()

# Link without the compiler's default libraries. What needs libstdc++ or libgcc_s fails here, at the link, and
# not in somebody's process. -Bsymbolic: the module uses its own record, whatever else the process has loaded.
# Everything is bound at load, so that the first event does not run the dynamic linker.
function(xopt_link_to_libc_only target)
  xopt_hide_cxx_names(${target})
  target_link_options(${target} PRIVATE LINKER:-Bsymbolic LINKER:-z,relro LINKER:-z,now)
  target_link_options(${target} PRIVATE -nodefaultlibs)
  target_link_libraries(${target} PRIVATE c gcc)
  if(NOT XOPT_SANITIZE)
    target_link_options(${target} PRIVATE LINKER:-z,defs)
  elseif(XOPT_SANITIZE STREQUAL address AND CMAKE_CXX_COMPILER_ID STREQUAL GNU)
    target_link_options(${target} PRIVATE LINKER:--push-state,--no-as-needed -lasan -lubsan
                                          LINKER:--pop-state)
  endif()
endfunction()
