# The daemon is built from one static library per subsystem folder, each
# linking only the layers below it:
#
#   frame -> bus -> watch -> scan -> storage -> common, platform
#
# scripts/check-layers.sh checks the same order on the #include lines, so a
# header of a higher layer cannot creep in where the linker would not notice.
#
# zibd_layer(NAME FOLDER BELOW lib...) makes the library NAME from every .cpp
# in FOLDER (picked up again when files are added). A folder without sources
# yet gives an interface library, so that the layers above can already name it.
function(zibd_layer name folder)
  cmake_parse_arguments(L "" "" "BELOW" ${ARGN})
  file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/${folder}/*.cpp)
  list(FILTER sources EXCLUDE REGEX "/main\\.cpp$")
  if(sources)
    add_library(${name} STATIC ${sources})
    target_link_libraries(${name} PUBLIC ${L_BELOW})
    if(ZIBD_THREAD_SAFETY_ANALYSIS)
      target_compile_options(${name} PRIVATE -Wthread-safety -Wthread-safety-beta)
    endif()
  else()
    add_library(${name} INTERFACE)
    target_link_libraries(${name} INTERFACE ${L_BELOW})
  endif()
endfunction()
