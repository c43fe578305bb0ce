vlt_add_test(NAME typed_exchange_test LABEL integration SOURCES typed_exchange_test.cpp
  LIBS vlt_aeport TIMEOUT 120 ${mixed_hosts_entry})
