# Run by CPack on the staged files of each package.
file(GLOB_RECURSE files LIST_DIRECTORIES false ${CPACK_TEMPORARY_DIRECTORY}/*/usr/share/man/* ${CPACK_TEMPORARY_DIRECTORY}/*/changelog)
foreach(file ${files})
  if(NOT file MATCHES "\\.gz$")
    execute_process(COMMAND gzip -9 -n -f ${file} COMMAND_ERROR_IS_FATAL ANY)
  endif()
endforeach()
