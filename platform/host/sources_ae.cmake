# The Apple Event Manager's data model, its codec, coercions and printing.
target_sources(vlt_platform PRIVATE
  host/ae_coerce.cpp
  host/ae_data_model.cpp
  host/ae_decode.cpp
  host/ae_event.cpp
  host/ae_flatten.cpp
  host/ae_gather.cpp
  host/ae_introspect.cpp
  host/ae_lists.cpp
  host/ae_number.cpp
  host/ae_number_text.cpp
  host/ae_print.cpp
  host/ae_storage.cpp
  host/ae_text.cpp
  host/ae_types.cpp
  host/ae_value.cpp
  host/frame_buffer.cpp)
