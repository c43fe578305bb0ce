# GoogleTest from its Debian source package, built with this preset's flags and sanitizers but
# without this project's warnings.
set(VLT_GTEST_SOURCE /usr/src/googletest/googletest CACHE PATH "GoogleTest's sources")
if(NOT EXISTS ${VLT_GTEST_SOURCE}/src/gtest-all.cc)
  message(FATAL_ERROR "GoogleTest's sources are missing: apt install googletest")
endif()
add_library(vlt_gtest STATIC ${VLT_GTEST_SOURCE}/src/gtest-all.cc)
target_include_directories(vlt_gtest SYSTEM PUBLIC ${VLT_GTEST_SOURCE}/include)
target_include_directories(vlt_gtest PRIVATE ${VLT_GTEST_SOURCE})
target_link_libraries(vlt_gtest PUBLIC Threads::Threads)
