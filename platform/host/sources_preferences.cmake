target_sources(vlt_platform PRIVATE
  host/preferences.cpp
  host/preferences_commit.cpp
  host/preferences_place.cpp
  host/preferences_read.cpp
  host/preferences_store.cpp
)
