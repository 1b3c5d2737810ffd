# The package directory that interpreters run from: the content of python/ and the built module inside it.

# Stage on every build. A script of its own does the work, since only then is known what has changed.
function(xopt_stage_package module source_folder package_folder)
  add_custom_target(
    package_folder ALL
    COMMAND
      ${CMAKE_COMMAND} -D SOURCE_FOLDER=${source_folder} -D PACKAGE_FOLDER=${package_folder} #
      -D MODULE_FILE=$<TARGET_FILE:${module}> -P ${PROJECT_SOURCE_DIR}/cmake/stage_package.cmake
    DEPENDS ${module}
    COMMENT "Staging ${package_folder}"
    VERBATIM)
endfunction()
