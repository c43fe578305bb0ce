#include "tools/values/absence.h"

#include <algorithm>
#include <cctype>
#include <string_view>

#include "platform/host/session/introspect.h"
#include "tools/command_line.h"
#include "tools/values/port_text.h"

namespace {

constexpr size_t kMostShown = 3;

std::string LowerCase(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

}  // namespace

std::vector<std::string> NamesLike(const std::string& name, const std::vector<std::string>& names) {
  std::vector<std::string> like;
  const std::string wanted = LowerCase(name);
  for (const std::string& each : names) {
    if (like.size() == kMostShown || wanted.empty()) return like;
    if (LowerCase(each).find(wanted) != std::string::npos) like.push_back(each);
  }
  std::vector<std::string_view> others;
  for (const std::string& each : names) {
    if (std::find(like.begin(), like.end(), each) == like.end()) others.push_back(each);
  }
  while (like.size() < kMostShown) {
    const std::string near = NearestWord(name, others);
    if (near.empty()) break;
    std::erase(others, std::string_view(near));
    like.push_back(near);
  }
  return like;
}

std::vector<std::string> WhyNobodyOwns(const std::string& name) {
  std::vector<std::string> lines, published;
  for (const HostNameInfo& info : HostListNames()) {
    if (!info.hidden) published.push_back(info.name);
  }
  std::string names;
  for (const std::string& each : NamesLike(name, published)) {
    names += (names.empty() ? "" : ", ") + EscapedBytes(each);
  }
  if (!names.empty()) lines.push_back("did you mean " + names + "?");
  const HostSessionDirectoryInfo session = HostDescribeSessionDirectory();
  const std::string count = std::to_string(published.size());
  lines.push_back("looked in " + session.path + " (from " + session.source + "), which has " +
                  count + (published.size() == 1 ? " name" : " names"));
  for (const HostSessionDirectoryInfo& other : HostOtherSessionDirectories()) {
    lines.push_back("another session directory of this user exists: " + other.path + " (from " +
                    other.source + "); programs that use it are not seen here");
  }
  return lines;
}
