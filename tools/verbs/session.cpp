#include <Security/Security.h>

#include <cstdio>
#include <string>
#include <vector>

#include "platform/host/services/introspect.h"
#include "platform/host/session/introspect.h"
#include "tools/table.h"
#include "tools/values/port_text.h"
#include "tools/verbs/verb.h"
#include "util/user_session.h"

namespace {

// A fact and where it comes from.
JsonValue Fact(JsonValue value, const char* source) {
  JsonValue fact = JsonValue::Object();
  fact.Add("value", std::move(value));
  fact.Add("source", source);
  return fact;
}

JsonValue UserModel() {
  char name[256];
  const bool hasName = GetCurrentUserName(name, sizeof name) == 0;
  JsonValue user = JsonValue::Object();
  if (hasName) {
    user.AddBytes("value", name);
  } else {
    user.Add("value", JsonValue());
  }
  user.Add("source", "password database");
  return user;
}

JsonValue DirectoryModel(const HostSessionDirectoryInfo& info) {
  JsonValue directory = JsonValue::Object();
  directory.AddBytes("value", info.path);
  directory.Add("source", info.source.c_str());
  directory.Add("usable", JsonValue::Bool(info.usable));
  directory.Add("problem", info.usable ? JsonValue() : JsonValue(info.problem));
  return directory;
}

JsonValue SessionModel(const HostSession& session, const HostSessionDirectoryInfo& directory) {
  char id[16];
  std::snprintf(id, sizeof id, "0x%x", static_cast<unsigned>(session.id));
  const bool isRoot = (session.attributes & sessionIsRoot) != 0;
  const bool hasGraphicAccess = (session.attributes & sessionHasGraphicAccess) != 0;
  JsonValue model = JsonValue::Object();
  model.Add("session", Fact(JsonValue::Unsigned(session.id), session.idSource));
  model.Add("hex", id);
  model.Add("root", Fact(JsonValue::Bool(isRoot), session.rootSource));
  model.Add("graphicAccess", Fact(JsonValue::Bool(hasGraphicAccess), session.graphicSource));
  model.Add("user", UserModel());
  model.Add("directory", DirectoryModel(directory));
  return model;
}

void PrintSession(const JsonValue& model) {
  std::vector<TableRow> rows;
  for (const char* name : {"session", "root", "graphicAccess", "user", "directory"}) {
    const JsonValue& fact = *model.Find(name);
    std::string value = TableCell(*fact.Find("value"));
    if (std::string(name) == "session") value += " (" + model.Find("hex")->Plain() + ")";
    rows.push_back({name, value, "(" + fact.Find("source")->Plain() + ")"});
  }
  PrintTable(rows);
}

}  // namespace

static int RunSession(const CommandLine& line) {
  const HostSessionDirectoryInfo directory = HostDescribeSessionDirectory();
  const JsonValue model = SessionModel(HostDescribeOwnSession(), directory);
  if (line.Has("--json")) {
    PrintJson(model);
  } else {
    PrintSession(model);
  }
  if (directory.usable) return kExitOk;
  Say(directory.problem);
  return kExitNoSession;
}

Verb SessionVerb() {
  return {"session",
          "[--json]",
          "Shows the login session and the session directory.",
          "Prints one line for each fact: the id of the login session, whether it is the\n"
          "root session, whether it has graphic access, the user, and the session\n"
          "directory. The source of each fact is in parentheses.\n"
          "\n"
          "Example: vltctl session\n"
          "\n"
          "JSON: one object with session, root, graphicAccess, user and directory, each\n"
          "an object with value and source (directory also with usable and problem), and\n"
          "hex, the session id with 0x as it is in port names.\n",
          {kJsonOption},
          0,
          0,
          RunSession,
          false};
}
