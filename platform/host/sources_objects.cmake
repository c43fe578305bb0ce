target_sources(vlt_platform PRIVATE
  host/cf_array.cpp
  host/cf_container.cpp
  host/cf_data.cpp
  host/cf_date.cpp
  host/cf_dictionary.cpp
  host/cf_dictionary_calls.cpp
  host/cf_number.cpp
  host/cf_read_stream.cpp
  host/cf_stream.cpp
  host/cf_url.cpp
  host/cf_write_stream.cpp
  host/hash.cpp
  host/object_pool.cpp
)
