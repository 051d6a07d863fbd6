# sdk/ stands on its own: each SDK header is compiled in a translation unit of its own whose include
# path holds nothing but a copy of sdk/ and of jsoncpp's forwards (the compiler's and Windows' own
# headers aside). The build fails when an SDK header reaches into support/, host/ or the rest of
# jsoncpp, or leans on another header for what it uses, or warns.
set(sdk_alone_dir ${CMAKE_BINARY_DIR}/sdk-alone)

# <json/forwards.h> and the headers it includes itself, as jsoncpp 1.9.5 has them.
foreach(name forwards.h config.h allocator.h version.h)
  configure_file(${AVSCAN_DEPS}/jsoncpp/include/json/${name} ${sdk_alone_dir}/include/json/${name} COPYONLY)
endforeach()

file(GLOB sdk_alone_headers CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/sdk/*.h)
set(sdk_alone_sources "")
foreach(header IN LISTS sdk_alone_headers)
  get_filename_component(name ${header} NAME)
  get_filename_component(stem ${header} NAME_WE)
  set(staged ${sdk_alone_dir}/include/sdk/${name})
  add_custom_command(OUTPUT ${staged}
    COMMAND ${CMAKE_COMMAND} -E copy_if_different ${header} ${staged}
    DEPENDS ${header})
  configure_file(${CMAKE_SOURCE_DIR}/cmake/sdk_alone.cpp.in ${sdk_alone_dir}/${stem}.cpp @ONLY)
  list(APPEND sdk_alone_sources ${staged} ${sdk_alone_dir}/${stem}.cpp)
endforeach()

add_library(sdk_alone OBJECT ${sdk_alone_sources})
# Replaces the tree's include path, which would let support/ and host/ be found.
set_property(TARGET sdk_alone PROPERTY INCLUDE_DIRECTORIES ${sdk_alone_dir}/include)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  target_compile_options(sdk_alone PRIVATE -Werror)
endif()
