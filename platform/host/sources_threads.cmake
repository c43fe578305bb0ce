# Multiprocessing Services, threads as the kernel interface sees them, time, plug-in identifiers.
target_sources(vlt_platform PRIVATE
  host/cf_uuid.cpp
  host/driver_time.cpp
  host/mach_thread.cpp
  host/mp_queue.cpp
  host/mp_sync.cpp
  host/mp_task.cpp
)
