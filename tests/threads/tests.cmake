vlt_add_test(NAME threads_platform_test LABEL unit
  SOURCES multiprocessing_test.cpp time_test.cpp
  LIBS vlt_platform
  TIMEOUT 120
)
vlt_add_test(NAME threads_test LABEL unit
  SOURCES
    com_object_ref_test.cpp
    locks_test.cpp
    run_loop_thread_test.cpp
    worker_test.cpp
  LIBS vlt_threads
  TIMEOUT 120
)
