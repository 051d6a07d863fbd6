# The release a host team consumes: the plug-in DLL with its symbols, KxsJson, the SDK headers
# with everything they include, the SDK's string library, and a CMake package configuration so
# that `find_package(AntivirusScanSdk 1.0 REQUIRED)` gives the imported target AntivirusScan::sdk.
include(CMakePackageConfigHelpers)

# The SDK's string type is compiled code: the host constructs and destroys the strings that cross
# the interfaces (engine versions, statistics keys), so it links this small library.
add_library(AntivirusScanSdk STATIC ${CMAKE_SOURCE_DIR}/support/StringT.cpp)

# The sdk/ headers and, transitively, the project headers they include, found from their
# #include "..." lines so that include/ compiles on its own whatever the headers come to include.
function(avscan_sdk_headers out)
  file(GLOB pending RELATIVE ${CMAKE_SOURCE_DIR} CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/sdk/*.h)
  set(found "")
  while(pending)
    list(POP_FRONT pending header)
    if(header IN_LIST found)
      continue()
    endif()
    list(APPEND found ${header})
    set_property(DIRECTORY ${CMAKE_SOURCE_DIR} APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/${header})
    file(STRINGS ${CMAKE_SOURCE_DIR}/${header} lines REGEX "^[ \t]*#[ \t]*include[ \t]*\"[^\"]+\"")
    foreach(line IN LISTS lines)
      string(REGEX REPLACE "^[ \t]*#[ \t]*include[ \t]*\"([^\"]+)\".*" "\\1" included "${line}")
      if(NOT EXISTS ${CMAKE_SOURCE_DIR}/${included})
        message(FATAL_ERROR "${header} includes ${included}, which is not a project header")
      endif()
      list(APPEND pending ${included})
    endforeach()
  endwhile()
  list(SORT found)
  set(${out} ${found} PARENT_SCOPE)
endfunction()

set(sdk_config_dir lib/cmake/AntivirusScanSdk)
set(AVSCAN_SDK_LIBRARY libAntivirusScanSdk.a)
set(AVSCAN_JSON_IMPLIB libKxsJson.dll.a)
set(AVSCAN_PLUGIN_FILE AntivirusScan.AL)

# bin/: the DLL is installed whole, then its DWARF is split off beside it and the shipped copy
# stripped, with a debug link (name and checksum) from the DLL to the split-off file.
get_target_property(plugin_pdb AntivirusScan AVSCAN_PDB_FILE)
install(FILES $<TARGET_FILE:AntivirusScan> ${plugin_pdb} ${AVSCAN_DEPS}/jsoncpp/bin/KxsJson.dll DESTINATION bin)
install(CODE "
  set(dll \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/bin/${AVSCAN_PLUGIN_FILE}\")
  execute_process(COMMAND \"${CMAKE_OBJCOPY}\" --only-keep-debug \"\${dll}\" \"\${dll}.debug\" RESULT_VARIABLE kept)
  execute_process(COMMAND \"${CMAKE_OBJCOPY}\" --strip-debug --strip-unneeded
                          \"--add-gnu-debuglink=\${dll}.debug\" \"\${dll}\" RESULT_VARIABLE stripped)
  if(NOT kept EQUAL 0 OR NOT stripped EQUAL 0)
    message(FATAL_ERROR \"Cannot split the debug information off \${dll}\")
  endif()
")

# include/ and lib/.
avscan_sdk_headers(sdk_headers)
foreach(header IN LISTS sdk_headers)
  get_filename_component(header_dir ${header} DIRECTORY)
  install(FILES ${CMAKE_SOURCE_DIR}/${header} DESTINATION include/${header_dir})
endforeach()
install(DIRECTORY ${AVSCAN_DEPS}/jsoncpp/include/json DESTINATION include)
install(TARGETS AntivirusScanSdk ARCHIVE DESTINATION lib)
install(FILES ${AVSCAN_DEPS}/jsoncpp/lib/${AVSCAN_JSON_IMPLIB} DESTINATION lib)

configure_package_config_file(${CMAKE_SOURCE_DIR}/cmake/AntivirusScanSdkConfig.cmake.in
  ${CMAKE_BINARY_DIR}/AntivirusScanSdkConfig.cmake INSTALL_DESTINATION ${sdk_config_dir})
write_basic_package_version_file(${CMAKE_BINARY_DIR}/AntivirusScanSdkConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/AntivirusScanSdkConfig.cmake ${CMAKE_BINARY_DIR}/AntivirusScanSdkConfigVersion.cmake
        DESTINATION ${sdk_config_dir})

# Documents, and jsoncpp's licence, which its binary form must carry.
install(FILES ${CMAKE_SOURCE_DIR}/README.md ${CMAKE_SOURCE_DIR}/CHANGES DESTINATION .)
if(EXISTS ${AVSCAN_DEPS}/src/jsoncpp/LICENSE)
  install(FILES ${AVSCAN_DEPS}/src/jsoncpp/LICENSE DESTINATION share/doc/jsoncpp)
endif()

set(CPACK_GENERATOR ZIP)
set(CPACK_PACKAGE_NAME ${PROJECT_NAME})
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Antivirus scan adapter plug-in")
set(CPACK_SYSTEM_NAME win64)
set(CPACK_PACKAGE_DIRECTORY ${CMAKE_BINARY_DIR}/package)
include(CPack)
