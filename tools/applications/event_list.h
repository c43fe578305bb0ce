#pragma once

#include <CoreServices/CoreServices.h>

#include <string>
#include <vector>

#include "tools/values/json_value.h"

// The requests that an application takes, as the array VLTEvents in its Info.plist describes them.
// Each entry is a dictionary:
//
//   class, id     four-character codes
//   name          one word, for people and for vltctl send
//   text          one sentence
//   parameters    an array of dictionaries: key (a code), name, type (a name as for vltctl send, a
//                 code, or "any"), text, optional (true or false)
//   reply         likewise, the parameters of the reply
//
// A plain value. Reading belongs to one thread.

struct EventParameter {
  std::string key;
  std::string name;
  std::string type;
  std::string text;
  bool isOptional = false;
};

struct EventDescription {
  std::string eventClass;
  std::string id;
  std::string name;
  std::string text;
  std::vector<EventParameter> parameters;
  std::vector<EventParameter> reply;
};

// Reads the descriptions of the bundle at `path`. Returns false with a message if its Info.plist
// cannot be read, or an entry lacks what it needs; an application without VLTEvents has none.
bool ReadEvents(const std::string& path, std::vector<EventDescription>& events,
                std::string& problem);

// Return null if there is none.
const EventDescription* FindEvent(const std::vector<EventDescription>& events,
                                  const std::string& name);
const EventDescription* FindEvent(const std::vector<EventDescription>& events,
                                  const std::string& eventClass, const std::string& id);

// Makes KEY:TYPE=VALUE of an argument that may also be NAME=VALUE, KEY=VALUE or NAME:TYPE=VALUE.
// Returns what it does not understand unchanged.
std::string FullParameter(const EventDescription& event, const std::string& word);

// The description as it would be sent: "name CLASS ID key:type=NAME ... [optional]".
std::vector<std::string> EventLines(const EventDescription& event);
JsonValue EventModel(const EventDescription& event);
