# zibd_add_subdirectories(): every subfolder of the current source folder
# that has a CMakeLists.txt takes part, so adding a tool, a host library or a
# benchmark needs no edit here.
function(zibd_add_subdirectories)
  file(GLOB subdirs LIST_DIRECTORIES true ${CMAKE_CURRENT_SOURCE_DIR}/*)
  foreach(dir ${subdirs})
    if(IS_DIRECTORY ${dir} AND EXISTS ${dir}/CMakeLists.txt)
      add_subdirectory(${dir})
    endif()
  endforeach()
endfunction()
