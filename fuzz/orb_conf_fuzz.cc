// Fuzz target of the configuration file reader: any file content read into
// a table. Checks that the table comes out sorted, that every name is made
// of name characters and defined once, and that each can be looked up.
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "common/orb_conf.h"
#include "fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const fuzz::MemoryFile file(data, size);
  if (file.get() == nullptr) return 0;
  const std::string& text = file.text();
  conf_table* table = conf_new();
  FUZZ_REQUIRE(table != nullptr, "no table");
  FUZZ_REQUIRE(conf_read_stream(file.get(), table) == 0, text);

  FUZZ_REQUIRE(table->sorted == 1, text);
  for (unsigned i = 0; i < table->count; ++i) {
    const conf_pair& pair = table->pairs[i];
    FUZZ_REQUIRE(pair.name[0] != '\0', text);
    FUZZ_REQUIRE(std::strspn(pair.name, "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ"
                                        "0123456789_") == std::strlen(pair.name),
                 pair.name);
    FUZZ_REQUIRE(pair.value[0] != '\0', pair.name);
    if (i > 0) FUZZ_REQUIRE(std::strcmp(table->pairs[i - 1].name, pair.name) < 0, pair.name);
    FUZZ_REQUIRE(conf_get(pair.name, table) == pair.value, pair.name);
  }
  conf_free(table);
  return 0;
}
