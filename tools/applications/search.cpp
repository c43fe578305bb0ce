#include "tools/applications/search.h"

#include <CoreFoundation/CoreFoundation.h>

#include "tools/table.h"
#include "tools/values/error_names.h"
#include "tools/values/port_text.h"
#include "util/ostype_text.h"

namespace {

bool HasSlash(const std::string& word) { return word.find('/') != std::string::npos; }

Way ByPath(const std::string& word, Search& search) {
  if (!HasSlash(word)) return {"path", false, "it has no slash, so it is not taken for a path"};
  const auto* path = reinterpret_cast<const UInt8*>(word.c_str());
  const OSStatus err = FSPathMakeRef(path, &search.application, nullptr);
  return {"path", err == 0, err == 0 ? "it is there" : ErrorSentence(err)};
}

// The folders in which applications were looked for, for people.
std::string LookedFor() {
  const size_t count = HostDescribeApplications().size();
  std::string text = std::to_string(count) + (count == 1 ? " application in" : " applications in");
  for (const std::string& folder : HostListApplicationFolders()) text += " " + folder;
  return text;
}

Way ByRegistry(const char* name, OSType signature, const std::string& identifier, Search& search) {
  CFStringRef string = nullptr;
  if (!identifier.empty()) {
    string = CFStringCreateWithCString(nullptr, identifier.c_str(), kCFStringEncodingUTF8);
    if (string == nullptr) return {name, false, "an identifier is UTF-8"};
  }
  const OSStatus err =
      LSFindApplicationForInfo(signature, string, nullptr, &search.application, nullptr);
  if (string != nullptr) CFRelease(string);
  if (err != 0) return {name, false, "none of " + LookedFor() + " has it"};
  search.path = PathOf(search.application);
  for (const HostApplicationInfo& each : HostDescribeApplications()) {
    FSRef ref;
    if (FSPathMakeRef(reinterpret_cast<const UInt8*>(each.path.c_str()), &ref, nullptr) != 0 ||
        FSCompareFSRefs(&ref, &search.application) != 0) {
      continue;
    }
    search.folder = each.folder;
    return {name, true,
            "version " + (each.version.empty() ? "unknown" : each.version) + " in " + each.folder};
  }
  return {name, true, "it is there"};
}

// The four-character code in a text, with or without quotes; 0 if it is not one.
OSType SignatureOf(const std::string& word) {
  OSType code = 0;
  const std::string quoted = word.size() == 4 ? "'" + word + "'" : word;
  const bool isCode = quoted.size() == 6 && CStringToOSType(quoted.c_str(), code) == 0;
  return isCode ? code : 0;
}

}  // namespace

Way FindByIdentifier(const std::string& identifier, Search& search) {
  return ByRegistry("identifier", 0, identifier, search);
}

Way FindBySignature(OSType signature, Search& search) {
  return ByRegistry("signature", signature, "", search);
}

Search FindApplication(const std::string& word) {
  Search search;
  const bool isQuoted = word.size() == 6 && word.front() == '\'' && word.back() == '\'';
  const bool isPath = HasSlash(word) && !isQuoted;
  search.ways.push_back(isQuoted
                            ? Way{"path", false, "a signature in quotation marks is not a path"}
                            : ByPath(word, search));
  if (!search.Found()) {
    search.ways.push_back(
        isQuoted || isPath
            ? Way{"identifier", false, "an identifier has no slash and no quotation marks"}
            : FindByIdentifier(word, search));
  }
  if (!search.Found()) {
    const OSType signature = SignatureOf(word);
    search.ways.push_back(signature == 0 ? Way{"signature", false, "it is not four characters"}
                                         : FindBySignature(signature, search));
  }
  if (search.Found()) search.path = PathOf(search.application);
  for (const HostApplicationInfo& each : HostDescribeAllBundles()) {
    if (!each.problem.empty()) search.broken.push_back(each.path + ": " + each.problem);
  }
  return search;
}

HostApplicationInfo FoundApplication(const Search& search) {
  HostApplicationInfo info;
  if (!search.Found()) return info;
  for (const HostApplicationInfo& each : HostDescribeApplications()) {
    if (each.path == search.path) return each;
  }
  return HostDescribeItem(search.path);
}

void PrintSearch(const Search& search) {
  std::vector<TableRow> rows;
  for (const Way& way : search.ways) {
    rows.push_back({way.name, way.found ? "found" : "not found", OneLine(way.text)});
  }
  for (const std::string& text : search.broken) {
    rows.push_back({"bundle", "broken", OneLine(text)});
  }
  PrintTable(rows);
}

JsonValue SearchModel(const Search& search) {
  JsonValue::Array ways;
  for (const Way& way : search.ways) {
    JsonValue model = JsonValue::Object();
    model.Add("way", way.name);
    model.Add("found", JsonValue::Bool(way.found));
    model.Add("text", way.text);
    ways.push_back(std::move(model));
  }
  return ways;
}

JsonValue BrokenModel(const Search& search) {
  JsonValue::Array texts;
  for (const std::string& text : search.broken) texts.push_back(text);
  return texts;
}

std::string PathOf(const FSRef& ref) {
  std::string path(4096, 0);
  const auto size = static_cast<UInt32>(path.size());
  if (FSRefMakePath(&ref, reinterpret_cast<UInt8*>(path.data()), size) != 0) return "";
  path.resize(path.find('\0'));
  return path;
}

void AddBytesOrNull(JsonValue& object, const char* name, const std::string& bytes) {
  if (bytes.empty()) {
    object.Add(name, JsonValue());
  } else {
    object.AddBytes(name, bytes);
  }
}
