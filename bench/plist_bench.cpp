#include <CoreFoundation/CoreFoundation.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "bench/ipc_report.h"
#include "platform/host/plist/binary_write.h"
#include "platform/host/plist/codec.h"
#include "platform/host/plist/xml_write.h"

#ifdef VLT_HAS_EXPAT
#include <expat.h>
#endif
#ifdef VLT_HAS_LIBPLIST
#include <plist/plist.h>
#endif
#ifdef VLT_HAS_PUGIXML
#include <pugixml.hpp>
#endif

// Reading and writing property lists in memory, beside expat, which only looks at the markup,
// pugixml, whose tree holds any markup as texts in their order, and libplist, where these are
// installed. Reading includes freeing what was made. The rows take turns
// within each round, on one processor; the time is the processor's, in microseconds. The first row
// of each table is the one that the others are compared with.
//
//   plist_bench [ROUNDS [FILE [TABLE]]]
//
// FILE is how the name of one file begins, as in '20 MB', and TABLE how that of a table does, as in
// 'XML write'; only those are done then.

namespace {

[[noreturn]] void Fail(const char* what) {
  std::fprintf(stderr, "plist_bench: %s\n", what);
  std::exit(1);
}

double Microseconds() {
  timespec time;
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) * 1e6 + static_cast<double>(time.tv_nsec) / 1e3;
}

// ---- Files ----

// The same files on every machine.
class Maker {
 public:
  // Settings as programs keep them: every kind of value, some in groups.
  std::string Settings(size_t size, int depth) {
    for (int number = 0; text.size() < size; ++number) {
      Line(1, "<key>" + Words(3) + std::to_string(number) + "</key>");
      Value(1, depth);
    }
    return Finish();
  }

  // One dictionary of so many keys in no order: short and long ones, of which many begin alike.
  std::string RandomKeys(int count) {
    static const char* const kBeginnings[] = {
        "", "", "com.veltrane.", "com.veltrane.capture.", "Window Frame ", "NS"};
    for (int number = 0; number < count; ++number) {
      std::string key = kBeginnings[Below(6)] + Words(3);
      for (UInt32 left = Below(12); left > 0; --left) key += static_cast<char>('a' + Below(26));
      // The number keeps the keys apart.
      Line(1, "<key>" + key + std::to_string(number * 7919 % count) + "</key>");
      Line(1, "<integer>" + std::to_string(Below(100000)) + "</integer>");
    }
    return Finish();
  }

  // One dictionary of so many keys in their order.
  std::string Keys(int count) {
    for (int number = 0; number < count; ++number) {
      char key[64];
      std::snprintf(key, sizeof key, "<key>com.veltrane.key.%06d</key>", number);
      Line(1, key);
      Line(1, "<integer>" + std::to_string(number) + "</integer>");
    }
    return Finish();
  }

 private:
  UInt32 Below(UInt32 limit) {
    state = state * 6364136223846793005u + 1442695040888963407u;
    return static_cast<UInt32>(state >> 33) % limit;
  }

  std::string Words(UInt32 most) {
    static const char* const kWords[] = {"Window", "Frame",   "Recent",  "Color", "Path",  "Mode",
                                         "Device", "Capture", "Rate",    "Input", "Level", "Output",
                                         "Name",   "Index",   "Channel", "Format"};
    std::string words;
    for (UInt32 count = 1 + Below(most); count > 0; --count) words += kWords[Below(16)];
    return words;
  }

  void Line(int level, const std::string& line) {
    text.append(static_cast<size_t>(level), '\t');
    text += line;
    text += '\n';
  }

  void Group(int level, int depth, bool isDictionary) {
    Line(level, isDictionary ? "<dict>" : "<array>");
    for (UInt32 count = 2 + Below(7); count > 0; --count) {
      // The number keeps the keys of one dictionary apart.
      if (isDictionary) Line(level + 1, "<key>" + Words(2) + std::to_string(count) + "</key>");
      Value(level + 1, depth - 1);
    }
    Line(level, isDictionary ? "</dict>" : "</array>");
  }

  void Value(int level, int depth) {
    const UInt32 kind = Below(100);
    if (depth > 0 && kind < 40) return Group(level, depth, kind < 25);
    switch (Below(8)) {
      case 0:
        return Line(level, Below(2) != 0 ? "<true/>" : "<false/>");
      case 1:
      case 2:
        return Line(level, "<integer>" + std::to_string(Below(100000)) + "</integer>");
      case 3:
        return Line(level, "<real>" + std::to_string(Below(100000)) + ".25</real>");
      case 4:
        return Line(level, "<date>2005-03-01T12:34:" + std::to_string(10 + Below(50)) + "Z</date>");
      case 5:
        Line(level, "<data>");
        Line(level, std::string(4 * (2 + Below(14)), 'Q'));
        return Line(level, "</data>");
      default:
        return Line(level, "<string>" + Words(5) + "</string>");
    }
  }

  std::string Finish() {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
           "<!DOCTYPE plist PUBLIC \"-//Apple Computer//DTD PLIST 1.0//EN\" "
           "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
           "<plist version=\"1.0\">\n<dict>\n" +
           text + "</dict>\n</plist>\n";
  }

  std::string text;
  UInt64 state = 1;
};

// ---- Rows ----

const UInt8* Bytes(const std::string& text) { return reinterpret_cast<const UInt8*>(text.data()); }

// As a caller would keep what is written.
class GrowingSink final : public HostPlistSink {
 public:
  bool Take(const UInt8* bytes, size_t count) override {
    text.append(reinterpret_cast<const char*>(bytes), count);
    return true;
  }
  std::string text;
};

CFPropertyListRef Read(const std::string& file) {
  CFPropertyListFormat format = 0;
  HostPropertyListError error;
  CFPropertyListRef list = HostReadPlist(
      Bytes(file), file.size(), {kCFPropertyListMutableContainersAndLeaves}, &format, &error);
  if (list == nullptr) Fail(error.Sentence().c_str());
  return list;
}

using Writer = bool (*)(CFPropertyListRef, HostPlistSink&, HostPropertyListError*);

std::string Write(CFPropertyListRef list, Writer write) {
  GrowingSink sink;
  HostPropertyListError error;
  if (!write(list, sink, &error)) Fail(error.text.c_str());
  return std::move(sink.text);
}

// `prepare` makes what the row needs and returns what is timed.
struct Row {
  const char* name;
  std::function<std::function<void()>()> prepare;
};

#ifdef VLT_HAS_EXPAT
void ExpatParse(const std::string& file) {
  XML_Parser parser = XML_ParserCreate(nullptr);
  const auto size = static_cast<int>(file.size());
  if (XML_Parse(parser, file.data(), size, 1) != XML_STATUS_OK) Fail("expat refuses the file");
  XML_ParserFree(parser);
}
#endif

#ifdef VLT_HAS_PUGIXML
struct TreeSink final : pugi::xml_writer {
  void write(const void* bytes, size_t count) override {
    text.append(static_cast<const char*>(bytes), count);
  }
  std::string text;
};

std::shared_ptr<pugi::xml_document> TreeRead(const std::string& file) {
  auto tree = std::make_shared<pugi::xml_document>();
  if (!tree->load_buffer(file.data(), file.size())) Fail("pugixml refuses the file");
  return tree;
}
#endif

#ifdef VLT_HAS_LIBPLIST
plist_t PeerRead(const std::string& file, bool isBinary) {
  plist_t list = nullptr;
  const auto size = static_cast<uint32_t>(file.size());
  if (isBinary)
    plist_from_bin(file.data(), size, &list);
  else
    plist_from_xml(file.data(), size, &list);
  if (list == nullptr) Fail("libplist refuses the file");
  return list;
}

void PeerWrite(plist_t list, bool asBinary) {
  char* bytes = nullptr;
  uint32_t size = 0;
  if (asBinary)
    plist_to_bin(list, &bytes, &size);
  else
    plist_to_xml(list, &bytes, &size);
  if (size == 0) Fail("libplist does not write the list");
  plist_to_xml_free(bytes);
}
#endif

// In a process of its own, so that no row uses the heap of an earlier one; and twice before it
// counts, because the heap keeps large blocks for reuse only from the second time on. Small files
// are done many times.
double TimeApart(const Row& row, int repeats) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) Fail("no pipe");
  const pid_t child = fork();
  if (child == 0) {
    const std::function<void()> run = row.prepare();
    run();
    run();
    const double start = Microseconds();
    for (int i = 0; i < repeats; ++i) run();
    const double each = (Microseconds() - start) / repeats;
    _exit(write(ends[1], &each, sizeof each) == sizeof each ? 0 : 1);
  }
  close(ends[1]);
  double each = 0;
  if (child < 0 || read(ends[0], &each, sizeof each) != sizeof each) Fail("a row has failed");
  close(ends[0]);
  waitpid(child, nullptr, 0);
  return each;
}

// The tables of one file.
class FileBench {
 public:
  FileBench(const char* name, std::string file, std::string_view only)
      : name(name), xml(std::move(file)), only(only) {
    CFPropertyListRef list = Read(xml);
    binary = Write(list, HostWritePlistBinary);
    CFRelease(list);
    repeats = static_cast<int>(std::max<size_t>(1, 1000000 / xml.size()));
  }

  void Round(IpcReport& report) const {
    Turn(report, "XML parse + free",
         {
#ifdef VLT_HAS_EXPAT
             {"expat", [this] { return [this] { ExpatParse(xml); }; }},
#endif
#ifdef VLT_HAS_LIBPLIST
             {"libplist", [this] { return [this] { plist_free(PeerRead(xml, false)); }; }},
#endif
#ifdef VLT_HAS_PUGIXML
             {"pugixml", [this] { return [this] { TreeRead(xml); }; }},
#endif
             {"ours", [this] { return [this] { CFRelease(Read(xml)); }; }},
         });
    Turn(report, "XML write",
         {
#ifdef VLT_HAS_LIBPLIST
             PeerWriting(false),
#endif
#ifdef VLT_HAS_PUGIXML
             {"pugixml",
              [this] {
                return [tree = TreeRead(xml)] {
                  TreeSink sink;
                  tree->save(sink);
                };
              }},
#endif
             OursWriting(HostWritePlistXML),
         });
    Turn(report, "binary parse + free",
         {
#ifdef VLT_HAS_LIBPLIST
             {"libplist", [this] { return [this] { plist_free(PeerRead(binary, true)); }; }},
#endif
             {"ours", [this] { return [this] { CFRelease(Read(binary)); }; }},
         });
    Turn(report, "binary parse, one look-up + free",
         {
#ifdef VLT_HAS_LIBPLIST
             {"libplist", [this] { return [this] { PeerSearch(); }; }},
#endif
             {"ours", [this] { return [this] { Search(); }; }},
         });
    Turn(report, "binary write",
         {
#ifdef VLT_HAS_LIBPLIST
             PeerWriting(true),
#endif
             OursWriting(HostWritePlistBinary),
         });
  }

 private:
  Row OursWriting(Writer write) const {
    return {"ours", [this, write] { return [list = Read(xml), write] { Write(list, write); }; }};
  }
#ifdef VLT_HAS_LIBPLIST
  Row PeerWriting(bool asBinary) const {
    return {"libplist", [this, asBinary] {
              return [list = PeerRead(xml, false), asBinary] { PeerWrite(list, asBinary); };
            }};
  }
#endif

  // For a key that is not there: what is put off until the first search is done then.
  void Search() const {
    CFPropertyListRef list = Read(binary);
    if (CFDictionaryContainsKey(static_cast<CFDictionaryRef>(list), CFSTR("none")))
      Fail("a key is there that is not");
    CFRelease(list);
  }
#ifdef VLT_HAS_LIBPLIST
  void PeerSearch() const {
    plist_t list = PeerRead(binary, true);
    if (plist_dict_get_item(list, "none") != nullptr) Fail("libplist finds what is not there");
    plist_free(list);
  }
#endif

  void Turn(IpcReport& report, const char* what, const std::vector<Row>& rows) const {
    if (!std::string_view(what).starts_with(only)) return;
    for (const Row& row : rows) {
      report.Add(row.name, std::string(name) + ": " + what, TimeApart(row, repeats));
    }
  }

  const char* const name;
  const std::string xml;
  const std::string_view only;  // the tables
  std::string binary;
  int repeats;
};

void PinToOneProcessor() {
  cpu_set_t allowed, one;
  sched_getaffinity(0, sizeof allowed, &allowed);
  for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
    if (!CPU_ISSET(cpu, &allowed)) continue;
    CPU_ZERO(&one);
    CPU_SET(cpu, &one);
    sched_setaffinity(0, sizeof one, &one);
    return;
  }
}

}  // namespace

int main(int argc, char** argv) {
  const int rounds = argc > 1 ? std::atoi(argv[1]) : 7;
  const std::string_view onlyFile = argc > 2 ? argv[2] : "";
  const std::string_view onlyTable = argc > 3 ? argv[3] : "";
  PinToOneProcessor();
  IpcReport report;
  const struct {
    const char* name;
    std::function<std::string()> make;
  } files[] = {
      {"2 KB settings", [] { return Maker().Settings(2000, 1); }},
      {"1 MB nested", [] { return Maker().Settings(1000000, 6); }},
      {"20 MB of keys", [] { return Maker().Settings(20000000, 2); }},
      {"200,000 keys in one", [] { return Maker().Keys(200000); }},
      {"216,000 unsorted keys", [] { return Maker().RandomKeys(216000); }},
  };
  for (const auto& file : files) {
    if (!std::string_view(file.name).starts_with(onlyFile)) continue;
    const FileBench bench(file.name, file.make(), onlyTable);
    for (int round = 0; round < rounds; ++round) bench.Round(report);
  }
  report.PrintTable();
  return 0;
}
