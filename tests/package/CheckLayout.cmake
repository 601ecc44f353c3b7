# Fails unless the install tree under ${prefix} holds what a host needs.
set(expected
  include/qorxmlu/qorxmlu.h
  include/qorxmlu/xml/XML.h
  lib/cmake/qorxmlu/qorxmluConfig.cmake
  lib/cmake/qorxmlu/qorxmluConfigVersion.cmake
  lib/cmake/qorxmlu/qorxmluTargets.cmake
  lib/pkgconfig/qorxmlu.pc)
set(suffix "")
if(windows)
  set(suffix .exe)
  list(APPEND expected bin/libqorxmlu.dll lib/libqorxmlu.dll.a)
else()
  list(APPEND expected lib/libqorxmlu.so lib/libqorinet.so)
endif()
if(tool)
  list(APPEND expected bin/qorxml${suffix})
endif()
foreach(file ${expected})
  if(NOT EXISTS ${prefix}/${file})
    message(FATAL_ERROR "missing from the install tree: ${file}")
  endif()
endforeach()
message(STATUS "install tree complete: ${prefix}")
