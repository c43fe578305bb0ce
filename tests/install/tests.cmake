# The installation, as other projects and programs use it.
if(CMAKE_CROSSCOMPILING OR VLT_SANITIZE)
  return()
endif()
set(peer "")
foreach(build IN LISTS VLT_PEER_BUILDS)
  if(build MATCHES "/powerpc$")
    set(peer --peer ${build})
  endif()
endforeach()
add_test(NAME install_test
  COMMAND ${CMAKE_CURRENT_LIST_DIR}/install_test.py --build ${PROJECT_BINARY_DIR} ${peer})
set_tests_properties(install_test PROPERTIES LABELS "integration;install" TIMEOUT 600
  SKIP_RETURN_CODE 77)
add_test(NAME completion_test COMMAND ${CMAKE_CURRENT_LIST_DIR}/completion_test.py
  $<TARGET_FILE:vltctl> ${PROJECT_BINARY_DIR}/share)
set_tests_properties(completion_test PROPERTIES LABELS "integration;install" TIMEOUT 300
  SKIP_RETURN_CODE 77)
if(TARGET vlt_shared)
  add_test(NAME exports_test COMMAND ${CMAKE_CURRENT_LIST_DIR}/exports_test.py
    $<TARGET_FILE:vlt_shared> ${PROJECT_SOURCE_DIR}/packaging/libvlt.exports)
  set_tests_properties(exports_test PROPERTIES LABELS "integration;install" TIMEOUT 60)
endif()
