target_sources(vlt_platform PRIVATE
  host/atomics.cpp
  host/cf_object.cpp
  host/cf_string.cpp
  host/cf_string_format.cpp
  host/debugger.cpp
  host/file_lock.cpp
  host/memory_manager.cpp
  host/notification.cpp
  host/notification_board.cpp
  host/notification_helper.cpp
  host/process_manager.cpp
  host/sink_file.cpp
  host/start_program.cpp
  host/system_log.cpp
  host/text_codec.cpp
  host/text_utils.cpp
)
# Where the notice helper is installed, for programs that have none beside themselves.
set_source_files_properties(host/notification_helper.cpp PROPERTIES COMPILE_DEFINITIONS
  VLT_NOTIFY_FOLDER="${CMAKE_INSTALL_FULL_LIBEXECDIR}/veltrane")
