# File, Folder, Alias, Desktop and Process Manager, Gestalt, login sessions.
target_sources(vlt_platform PRIVATE
  host/aliases.cpp
  host/bundle.cpp
  host/cf_url_ref.cpp
  host/date_time.cpp
  host/file_calls.cpp
  host/file_catalogue.cpp
  host/file_items.cpp
  host/file_status.cpp
  host/folders.cpp
  host/gestalt.cpp
  host/process_list.cpp
  host/security_session.cpp
  host/user_folders.cpp
)
