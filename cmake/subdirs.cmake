# Adds every direct subfolder that has a CMakeLists.txt, so that new parts
# join the build without edits to a shared list.
function(orlo_add_all_subdirectories)
  file(GLOB children LIST_DIRECTORIES true ${CMAKE_CURRENT_SOURCE_DIR}/*)
  foreach(child ${children})
    if(IS_DIRECTORY ${child} AND EXISTS ${child}/CMakeLists.txt)
      add_subdirectory(${child})
    endif()
  endforeach()
endfunction()
