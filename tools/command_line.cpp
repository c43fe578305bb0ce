#include "tools/command_line.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdint>

namespace {

constexpr double kTicksPerSecond = 60;

// "--" and a letter: a parameter under the key "----" is not an option.
bool IsOption(std::string_view word) {
  if (word.size() < 3 || !word.starts_with("--")) return false;
  return (word[2] | 0x20) >= 'a' && (word[2] | 0x20) <= 'z';
}

const OptionSpec* FindOption(const std::vector<OptionSpec>& specs, std::string_view name) {
  const auto found = std::find_if(specs.begin(), specs.end(),
                                  [&](const OptionSpec& spec) { return spec.name == name; });
  return found != specs.end() ? &*found : nullptr;
}

std::string UnknownOption(const std::vector<OptionSpec>& specs, const std::string& name) {
  std::vector<std::string_view> names;
  for (const OptionSpec& spec : specs) names.push_back(spec.name);
  const std::string near = NearestWord(name, names);
  return "unknown option " + Quoted(name) + (near.empty() ? "" : "; did you mean " + near + "?");
}

size_t EditDistance(std::string_view a, std::string_view b) {
  std::vector<size_t> row(b.size() + 1);
  for (size_t j = 0; j <= b.size(); ++j) row[j] = j;
  for (size_t i = 1; i <= a.size(); ++i) {
    size_t diagonal = row[0];
    row[0] = i;
    for (size_t j = 1; j <= b.size(); ++j) {
      const size_t replaced = diagonal + (a[i - 1] != b[j - 1]);
      diagonal = row[j];
      row[j] = std::min({replaced, row[j] + 1, row[j - 1] + 1});
    }
  }
  return row[b.size()];
}

}  // namespace

bool ParseCommandLine(const std::vector<OptionSpec>& specs, const std::vector<std::string>& words,
                      CommandLine& line, std::string& problem) {
  bool onlyWords = false;
  for (size_t i = 0; i < words.size(); ++i) {
    const std::string& word = words[i];
    if (!onlyWords && word == "--") {
      onlyWords = true;
      continue;
    }
    // A short option, such as "-o", is one only if the verb has it.
    if (onlyWords || (!IsOption(word) && FindOption(specs, word) == nullptr)) {
      line.words.push_back(word);
      continue;
    }
    const size_t equals = word.find('=');
    const std::string name = word.substr(0, equals);
    const OptionSpec* spec = FindOption(specs, name);
    if (spec == nullptr) return problem = UnknownOption(specs, name), false;
    if (line.Has(name) && !spec->isRepeatable) {
      return problem = name + " is given twice", false;
    }
    std::string& value = line.options[name];
    if (spec->valueName == nullptr) {
      if (equals != std::string::npos) return problem = name + " takes no value", false;
    } else if (equals != std::string::npos) {
      value = word.substr(equals + 1);
    } else if (++i < words.size()) {
      value = words[i];
    } else {
      return problem = name + " needs a value: " + spec->valueName, false;
    }
    if (spec->isRepeatable) line.repeated[name].push_back(value);
  }
  return true;
}

std::string NearestWord(std::string_view word, const std::vector<std::string_view>& candidates) {
  std::string_view nearest;
  size_t best = std::max<size_t>(2, word.size() / 3) + 1;
  for (const std::string_view candidate : candidates) {
    const size_t distance = EditDistance(word, candidate);
    if (distance < best && distance < candidate.size()) {
      best = distance;
      nearest = candidate;
    }
  }
  return std::string(nearest);
}

bool ParseSeconds(std::string_view text, int& ticks) {
  double unit = 1;
  if (text.ends_with("ms")) {
    unit = 0.001;
    text.remove_suffix(2);
  } else if (text.ends_with('s') || text.ends_with('m')) {
    unit = text.back() == 'm' ? 60 : 1;
    text.remove_suffix(1);
  }
  double seconds = 0;
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, seconds, std::chars_format::fixed);
  if (error != std::errc() || stop != end) return false;
  seconds *= unit;
  if (!(seconds > 0) || seconds > INT32_MAX / kTicksPerSecond) return false;
  ticks = static_cast<int>(std::ceil(seconds * kTicksPerSecond));
  return true;
}

bool ParseSecondsOption(const CommandLine& line, const char* name, int& ticks,
                        std::string& problem) {
  const auto option = line.options.find(name);
  if (option == line.options.end() || ParseSeconds(option->second, ticks)) return true;
  problem =
      name + (": " + Quoted(option->second)) + " is not a time above 0, such as 5, 5s, 500ms or 2m";
  return false;
}

std::string Quoted(std::string_view text) {
  constexpr size_t kMaxShown = 200;
  const bool isCut = text.size() > kMaxShown;
  return "\"" + std::string(text.substr(0, kMaxShown)) + (isCut ? "...\"" : "\"");
}
