# Compresses the manuals. cpack runs this in its staging folder before it makes the packages.
file(GLOB_RECURSE manuals ${CPACK_TEMPORARY_DIRECTORY}/*.[1-8])
list(FILTER manuals INCLUDE REGEX /share/man/)
if(manuals)
  execute_process(COMMAND gzip -9n ${manuals} COMMAND_ERROR_IS_FATAL ANY)
endif()
