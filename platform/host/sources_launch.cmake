target_sources(vlt_platform PRIVATE
  host/launch_lock.cpp
  host/launch_services.cpp
  host/open_application.cpp
)
