#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

// The messages about a titled notice, which tools show: text in UTF-8 of any length, buttons, and
// what the user did. They go over the same sockets as those of notice_protocol.h, whose kinds end
// at
// 4. A connection has at most one titled notice and no others. Pure functions: any thread.
//
// | Kind | Texts |
// |---|---|
// | 5, to the helper | token of an earlier notice to replace, or ""; title; text; key and label of
// each button | | 6, on screen | token of this notice; "buttons" or "" | | 7, the end |
// "dismissed", "expired", "closed", "action" or "logged"; key of the button, or the reason |
//
// Each text ends with a NUL.
//
// A token names a notice on the desktop: the bus, the service's name there, and the service's
// number for the notice. A service that was started anew counts from the beginning, so its notices
// have other tokens.

enum class TitledNoticeKind : uint8_t { kShow = 5, kOnScreen = 6, kEnd = 7 };

inline constexpr size_t kTitledNoticeSize = 32 * 1024;  // the largest packet

struct TitledNotice {
  std::string replaces;  // a token, or ""
  std::string title;
  std::string text;
  std::vector<std::pair<std::string, std::string>> buttons;  // key and label
};

// Returns the packet, without the part of a text after a NUL.
inline std::string WriteTitledTexts(TitledNoticeKind kind, const std::vector<std::string>& texts) {
  std::string packet(1, static_cast<char>(kind));
  for (const std::string& text : texts) packet.append(text.c_str()).push_back('\0');
  return packet;
}

// Returns false if the packet is of another kind or has no valid texts.
inline bool ReadTitledTexts(const char* packet, size_t size, TitledNoticeKind kind,
                            std::vector<std::string>& texts) {
  texts.clear();
  if (size < 2 || packet[0] != static_cast<char>(kind) || packet[size - 1] != 0) return false;
  for (size_t at = 1; at < size; at += texts.back().size() + 1) texts.emplace_back(packet + at);
  return true;
}

inline std::string WriteTitledNotice(const TitledNotice& notice) {
  std::vector<std::string> texts = {notice.replaces, notice.title, notice.text};
  for (const auto& [key, label] : notice.buttons) texts.insert(texts.end(), {key, label});
  return WriteTitledTexts(TitledNoticeKind::kShow, texts);
}

inline bool ReadTitledNotice(const char* packet, size_t size, TitledNotice& notice) {
  std::vector<std::string> texts;
  if (!ReadTitledTexts(packet, size, TitledNoticeKind::kShow, texts)) return false;
  if (texts.size() < 3 || texts.size() % 2 == 0) return false;
  notice = {texts[0], texts[1], texts[2], {}};
  for (size_t i = 3; i < texts.size(); i += 2) notice.buttons.emplace_back(texts[i], texts[i + 1]);
  return true;
}
