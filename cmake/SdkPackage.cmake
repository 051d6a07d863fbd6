# The release a host team consumes: the plug-in DLL with its symbols, KxsJson, the SDK headers, the
# SDK's string library, and a CMake package configuration so that
# `find_package(AntivirusScanSdk 1.0 REQUIRED)` gives the imported target AntivirusScan::sdk.
include(CMakePackageConfigHelpers)

# The SDK's string type is compiled code: the host constructs and destroys the strings that cross
# the interfaces (engine versions, statistics keys), so it links this small library.
add_library(AntivirusScanSdk STATIC ${CMAKE_SOURCE_DIR}/support/StringT.cpp)
# Linked into the host's image, which its own build hardens (cmake/Hardening.cmake).
set_target_properties(AntivirusScanSdk PROPERTIES AVSCAN_NOT_HARDENED ON)

# The sdk/ headers are the whole contract: they include nothing of the implementation (the
# sdk_alone target of cmake/SdkAloneCheck.cmake fails the build when one does), only each other,
# jsoncpp and the Windows headers.
file(GLOB sdk_headers CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/sdk/*.h)

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
install(FILES ${sdk_headers} DESTINATION include/sdk)
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
