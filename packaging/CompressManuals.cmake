# For CPack: packs the manuals of the Debian package as Debian wants them, before the package is made of the folder.
file(GLOB manuals ${CPACK_TEMPORARY_INSTALL_DIRECTORY}${CPACK_INSTALL_PREFIX}/share/man/man*/*.[0-9])
if(NOT manuals)
  message(FATAL_ERROR "there are no manuals below ${CPACK_TEMPORARY_INSTALL_DIRECTORY}")
endif()
execute_process(COMMAND gzip -9n ${manuals} COMMAND_ERROR_IS_FATAL ANY)
