# Warnings are errors in project code. Third-party headers come in as SYSTEM includes and are exempt.
function(vigil_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor
                                           -Woverloaded-virtual -Wimplicit-fallthrough -Werror)
  if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    target_compile_options(${target} PRIVATE -Wthread-safety)
  endif()
endfunction()
