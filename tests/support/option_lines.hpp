// The list of option texts that solver and companion must read alike: tests/data/option_lines.txt,
// whose head tells its form.
#pragma once

#include <cctype>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

struct OptionText {
  std::string escaped, text;
  std::string key;      // empty where no key is seen
  std::string outcome;  // "ignored", "kept", "unreadable", or a number
};

// The text that an escaped one stands for, {N*TEXT} and backslashes replaced.
inline std::string Unescaped(const std::string& escaped) {
  std::string text;
  for (std::size_t at = 0; at < escaped.size(); ++at) {
    const char c = escaped[at];
    if (c == '{' && std::isdigit(static_cast<unsigned char>(escaped[at + 1]))) {
      const std::size_t star = escaped.find('*', at), end = escaped.find('}', at);
      for (int left = std::stoi(escaped.substr(at + 1)); left > 0; --left)
        text += escaped.substr(star + 1, end - star - 1);
      at = end;
    } else if (c == '\\' && escaped[at + 1] == 'x') {
      text += static_cast<char>(std::stoi(escaped.substr(at + 2, 2), nullptr, 16));
      at += 3;
    } else if (c == '\\') {
      const std::string letters = "nrt", meant = "\n\r\t";
      const std::size_t letter = letters.find(escaped[++at]);
      text += letter == std::string::npos ? escaped[at] : meant[letter];
    } else {
      text += c;
    }
  }
  return text;
}

inline std::vector<OptionText> OptionTexts(const std::string& path) {
  std::ifstream file(path);
  std::vector<OptionText> texts;
  for (std::string line; std::getline(file, line);) {
    if (line.empty() || line[0] == '#') continue;
    OptionText given;
    const std::size_t bar = line.rfind(" | ");
    const std::size_t blank = line.rfind(' ');
    given.escaped = line.substr(0, bar);
    given.text = Unescaped(given.escaped);
    if (blank > bar + 2) given.key = line.substr(bar + 3, blank - bar - 3);
    given.outcome = line.substr(blank + 1);
    texts.push_back(given);
  }
  if (texts.size() < 100) throw std::runtime_error("no list of option texts in " + path);
  return texts;
}
