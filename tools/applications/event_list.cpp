#include "tools/applications/event_list.h"

#include <CoreFoundation/CoreFoundation.h>

#include <algorithm>

#include "tools/plist/file.h"
#include "tools/plist/leaf.h"
#include "tools/values/value_types.h"

namespace {

constexpr char kAnyType[] = "any";

class Entry {
 public:
  explicit Entry(CFTypeRef object) {
    if (object != nullptr && CFGetTypeID(object) == CFDictionaryGetTypeID()) {
      dictionary = static_cast<CFDictionaryRef>(object);
    }
  }

  bool IsDictionary() const { return dictionary != nullptr; }

  std::string Text(CFStringRef key) const {
    const CFTypeRef value = CFDictionaryGetValue(dictionary, key);
    return value != nullptr && CFGetTypeID(value) == CFStringGetTypeID()
               ? TextOf(static_cast<CFStringRef>(value))
               : "";
  }
  bool IsTrue(CFStringRef key) const {
    return CFDictionaryGetValue(dictionary, key) == kCFBooleanTrue;
  }
  // Returns null if there is no such array. Sets `isWrong` if the value is not an array.
  CFArrayRef Array(CFStringRef key, bool& isWrong) const {
    const CFTypeRef value = CFDictionaryGetValue(dictionary, key);
    isWrong = value != nullptr && CFGetTypeID(value) != CFArrayGetTypeID();
    return isWrong ? nullptr : static_cast<CFArrayRef>(value);
  }

 private:
  CFDictionaryRef dictionary = nullptr;
};

bool IsCode(const std::string& text) {
  FourCharCode code = 0;
  return ParseCode(text, code);
}

bool IsType(const std::string& text) {
  const bool isQuoted = text.size() > 2 && text.front() == '\'' && text.back() == '\'';
  return text == kAnyType || ValueTypeNamed(text) != nullptr ||
         (isQuoted && IsCode(text.substr(1, text.size() - 2)));
}

// A name that cannot be mistaken for a key with its type, or for an option.
bool IsName(const std::string& text) {
  return !text.empty() && text.front() != '-' && text.find_first_of(":=' ") == std::string::npos;
}

bool ReadParameters(const Entry& event, CFStringRef key, std::vector<EventParameter>& parameters,
                    std::string& problem) {
  bool isWrong = false;
  const CFArrayRef list = event.Array(key, isWrong);
  if (isWrong) return problem = TextOf(key) + " is not an array", false;
  for (CFIndex i = 0; list != nullptr && i < CFArrayGetCount(list); ++i) {
    const Entry entry(CFArrayGetValueAtIndex(list, i));
    const std::string where = TextOf(key) + "." + std::to_string(i);
    if (!entry.IsDictionary()) return problem = where + " is not a dictionary", false;
    const EventParameter parameter = {entry.Text(CFSTR("key")), entry.Text(CFSTR("name")),
                                      entry.Text(CFSTR("type")), entry.Text(CFSTR("text")),
                                      entry.IsTrue(CFSTR("optional"))};
    if (!IsCode(parameter.key)) return problem = where + ": no four-character key", false;
    if (!IsName(parameter.name)) return problem = where + ": no name of one word", false;
    if (!IsType(parameter.type)) return problem = where + ": no known type", false;
    parameters.push_back(parameter);
  }
  return true;
}

bool ReadEvent(CFTypeRef object, EventDescription& event, std::string& problem) {
  const Entry entry(object);
  if (!entry.IsDictionary()) return problem = "it is not a dictionary", false;
  event.eventClass = entry.Text(CFSTR("class"));
  event.id = entry.Text(CFSTR("id"));
  event.name = entry.Text(CFSTR("name"));
  event.text = entry.Text(CFSTR("text"));
  if (!IsCode(event.eventClass)) return problem = "no four-character class", false;
  if (!IsCode(event.id)) return problem = "no four-character id", false;
  if (!IsName(event.name)) return problem = "no name of one word", false;
  return ReadParameters(entry, CFSTR("parameters"), event.parameters, problem) &&
         ReadParameters(entry, CFSTR("reply"), event.reply, problem);
}

JsonValue ParametersModel(const std::vector<EventParameter>& parameters) {
  JsonValue::Array models;
  for (const EventParameter& each : parameters) {
    JsonValue model = JsonValue::Object();
    model.Add("key", each.key);
    model.Add("name", each.name);
    model.Add("type", each.type);
    model.Add("optional", JsonValue::Bool(each.isOptional));
    model.Add("text", each.text);
    models.push_back(std::move(model));
  }
  return models;
}

std::string ParameterLine(const EventParameter& parameter) {
  std::string line = parameter.key + ":" + parameter.type + "  " + parameter.name;
  if (parameter.isOptional) line += " (optional)";
  return parameter.text.empty() ? line : line + ": " + parameter.text;
}

}  // namespace

bool ReadEvents(const std::string& path, std::vector<EventDescription>& events,
                std::string& problem) {
  PlistFile file;
  PlistProblem fault;
  const std::string name = path + "/Contents/Info.plist";
  if (!ReadPlistFile(name, false, file, fault)) return problem = fault.Sentence(), false;
  const Entry root(file.list);
  if (!root.IsDictionary()) return problem = name + ": it has no dictionary at its root", false;
  bool isWrong = false;
  const CFArrayRef list = root.Array(CFSTR("VLTEvents"), isWrong);
  if (isWrong) return problem = name + ": VLTEvents is not an array", false;
  for (CFIndex i = 0; list != nullptr && i < CFArrayGetCount(list); ++i) {
    EventDescription event;
    if (!ReadEvent(CFArrayGetValueAtIndex(list, i), event, problem)) {
      problem.insert(0, name + ": VLTEvents." + std::to_string(i) + ": ");
      return false;
    }
    events.push_back(event);
  }
  return true;
}

const EventDescription* FindEvent(const std::vector<EventDescription>& events,
                                  const std::string& name) {
  const auto found = std::find_if(events.begin(), events.end(),
                                  [&](const EventDescription& each) { return each.name == name; });
  return found != events.end() ? &*found : nullptr;
}

const EventDescription* FindEvent(const std::vector<EventDescription>& events,
                                  const std::string& eventClass, const std::string& id) {
  const auto found = std::find_if(events.begin(), events.end(), [&](const EventDescription& each) {
    return each.eventClass == eventClass && each.id == id;
  });
  return found != events.end() ? &*found : nullptr;
}

std::string FullParameter(const EventDescription& event, const std::string& word) {
  for (const EventParameter& each : event.parameters) {
    for (const std::string& start : {each.name, each.key}) {
      if (word.starts_with(start + "=")) {
        const bool isAny = each.type == kAnyType;
        const std::string value = word.substr(start.size() + 1);
        // A parameter of any type takes its type from the value: "float=1.5".
        return each.key + ":" + (isAny ? value : each.type + "=" + value);
      }
    }
    if (word.starts_with(each.name + ":")) return each.key + word.substr(each.name.size());
  }
  return word;
}

std::vector<std::string> EventLines(const EventDescription& event) {
  std::vector<std::string> lines = {event.name + "  " + event.eventClass + " " + event.id};
  if (!event.text.empty()) lines.push_back("    " + event.text);
  for (const EventParameter& each : event.parameters) lines.push_back("    " + ParameterLine(each));
  for (const EventParameter& each : event.reply) {
    lines.push_back("    replies " + ParameterLine(each));
  }
  return lines;
}

JsonValue EventModel(const EventDescription& event) {
  JsonValue model = JsonValue::Object();
  model.Add("name", event.name);
  model.Add("class", event.eventClass);
  model.Add("id", event.id);
  model.Add("text", event.text);
  model.Add("parameters", ParametersModel(event.parameters));
  model.Add("reply", ParametersModel(event.reply));
  return model;
}
