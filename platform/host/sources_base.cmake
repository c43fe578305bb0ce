target_sources(vlt_platform PRIVATE
  host/atomics.cpp
  host/cf_object.cpp
  host/cf_string.cpp
  host/cf_string_format.cpp
  host/debugger.cpp
  host/memory_manager.cpp
  host/notification.cpp
  host/process_manager.cpp
  host/sink_file.cpp
  host/system_log.cpp
  host/text_codec.cpp
  host/text_utils.cpp
)
