# Run by cpack before it makes the packages of what it has installed into a folder of its own.
file(GLOB_RECURSE manuals ${CPACK_TEMPORARY_DIRECTORY}/*.[1-8])
list(FILTER manuals INCLUDE REGEX /share/man/)
if(manuals)
  execute_process(COMMAND gzip -9n ${manuals} COMMAND_ERROR_IS_FATAL ANY)
endif()
