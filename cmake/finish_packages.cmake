# Run by cpack when the components are staged: what only Debian packages need.

if(NOT EXISTS "${CPACK_TEMPORARY_DIRECTORY}")
  message(FATAL_ERROR "nothing is staged in '${CPACK_TEMPORARY_DIRECTORY}'")
endif()

# compress FILE...: as Debian wants its documents, the same bytes at every run.
function(compress)
  foreach(file ${ARGV})
    execute_process(COMMAND gzip -9nf ${file} COMMAND_ERROR_IS_FATAL ANY)
  endforeach()
endfunction()

foreach(component ${CPACK_COMPONENTS_ALL})
  set(root ${CPACK_TEMPORARY_DIRECTORY}/${component}/usr)
  string(TOUPPER ${component} upper)
  set(doc ${root}/share/doc/${CPACK_DEBIAN_${upper}_PACKAGE_NAME})
  configure_file(${CMAKE_CURRENT_LIST_DIR}/copyright.in ${doc}/copyright @ONLY
    FILE_PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
  configure_file(${CPACK_ZEB_CHANGELOG} ${doc}/changelog COPYONLY)
  file(CHMOD ${doc}/changelog PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
  file(GLOB pages ${root}/share/man/man*/*)
  compress(${doc}/changelog ${pages})
endforeach()
