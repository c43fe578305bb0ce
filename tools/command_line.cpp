#include "tools/command_line.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <optional>

namespace {

constexpr double kTicksPerSecond = 60;

// "--" and a letter: a parameter under the key "----" is not an option.
bool IsOption(std::string_view word) {
  if (word.size() < 3 || !word.starts_with("--")) return false;
  return (word[2] | 0x20) >= 'a' && (word[2] | 0x20) <= 'z';
}

const OptionSpec* FindOption(const std::vector<OptionSpec>& specs, std::string_view name) {
  const auto found = std::find_if(specs.begin(), specs.end(), [&](const OptionSpec& spec) {
    return spec.name == name || (spec.shortName != nullptr && spec.shortName == name);
  });
  return found != specs.end() ? &*found : nullptr;
}

// A word of the command line that is an option.
struct GivenOption {
  const OptionSpec* spec = nullptr;  // null: unknown
  std::string name;                  // as the user gave it
  std::optional<std::string> value;  // what follows it in the same word

  bool TakesNextWord() const {
    return spec != nullptr && spec->valueName != nullptr && !value.has_value();
  }
};

// Returns nothing if the word is an argument. A short option is one only if the verb has it.
std::optional<GivenOption> OptionIn(const std::vector<OptionSpec>& specs, const std::string& word) {
  GivenOption given;
  if (!word.starts_with("--")) {
    given.name = word.substr(0, 2);
    given.spec = FindOption(specs, given.name);
    if (given.spec == nullptr) return std::nullopt;
    if (word.size() == 2) return given;
    // "-o" may also be the only name of an option, which then stands alone.
    if (given.spec->shortName == nullptr || given.spec->valueName == nullptr) return std::nullopt;
    given.value = word.substr(word[2] == '=' ? 3 : 2);
    return given;
  }
  if (!IsOption(word)) return std::nullopt;
  const size_t equals = word.find('=');
  given.name = word.substr(0, equals);
  given.spec = FindOption(specs, given.name);
  if (equals != std::string::npos) given.value = word.substr(equals + 1);
  return given;
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
    const std::optional<GivenOption> option = onlyWords ? std::nullopt : OptionIn(specs, word);
    if (!option) {
      line.words.push_back(word);
      continue;
    }
    const OptionSpec* spec = option->spec;
    if (spec == nullptr) return problem = UnknownOption(specs, option->name), false;
    const std::string name = spec->name;
    if (line.Has(name) && !spec->isRepeatable) {
      return problem = name + " is given twice", false;
    }
    std::string& value = line.options[name];
    if (spec->valueName == nullptr) {
      if (option->value) return problem = name + " takes no value", false;
    } else if (option->value) {
      value = *option->value;
    } else if (++i < words.size()) {
      value = words[i];
    } else {
      return problem = option->name + " needs a value: " + spec->valueName, false;
    }
    if (spec->isRepeatable) line.repeated[name].push_back(value);
  }
  return true;
}

bool AsksForHelp(const std::vector<OptionSpec>& specs, const std::vector<std::string>& words) {
  for (size_t i = 0; i < words.size() && words[i] != "--"; ++i) {
    if (words[i] == "--help" || words[i] == "-h") return true;
    const std::optional<GivenOption> option = OptionIn(specs, words[i]);
    if (option && option->TakesNextWord()) ++i;
  }
  return false;
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
