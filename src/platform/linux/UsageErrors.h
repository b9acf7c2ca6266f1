// What the programs say of a command line that they cannot use: one sentence, and where help is.
#pragma once

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <charconv>
#include <concepts>
#include <numeric>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace platform::usage {

/// A number as people write it: 1000000, 0.05.
template <class Number>
std::string plainText(Number number) {
  std::array<char, 64> text;
  if constexpr (std::floating_point<Number>)
    return {text.data(), std::to_chars(text.begin(), text.end(), number, std::chars_format::fixed).ptr};
  else
    return {text.data(), std::to_chars(text.begin(), text.end(), number).ptr};
}

/// Takes a number within bounds; the sentence for any other text has the bounds in it.
template <class Number>
CLI::Validator numberFrom(Number least, Number most) {
  const auto fault = [least, most](const std::string& text) -> std::string {
    Number number{};
    if (CLI::detail::lexical_cast(text, number) && number >= least && number <= most) return {};
    const std::string kind = std::floating_point<Number> ? "number" : "whole number";
    return "\"" + text + "\" is no " + kind + " from " + plainText(least) + " to " + plainText(most);
  };
  return {[fault](std::string& text) { return fault(text); }, ""};
}

/// How many letters have to be put in, taken away or replaced to make one word of the other.
inline std::size_t distance(std::string_view one, std::string_view other) {
  std::vector<std::size_t> row(other.size() + 1);
  std::iota(row.begin(), row.end(), std::size_t{0});
  for (std::size_t at = 0; at < one.size(); ++at) {
    std::size_t diagonal = std::exchange(row[0], at + 1);
    for (std::size_t to = 0; to < other.size(); ++to) {
      const std::size_t replaced = diagonal + (one[at] == other[to] ? 0 : 1);
      diagonal = std::exchange(row[to + 1], std::min({row[to] + 1, row[to + 1] + 1, replaced}));
    }
  }
  return row.back();
}

/// `; did you mean "events"?`, when one of the names is near the word.
inline std::string suggestion(std::string_view word, const std::vector<std::string>& names) {
  const auto nearest = std::ranges::min_element(names, {}, [word](const std::string& name) { return distance(word, name); });
  constexpr std::size_t kNear = 2;
  if (nearest == names.end() || distance(word, *nearest) > std::min(kNear, word.size() / 2)) return {};
  return "; did you mean \"" + *nearest + "\"?";
}

inline std::vector<std::string> commandsOf(const CLI::App& app) {
  std::vector<std::string> names;
  for (const CLI::App* command : app.get_subcommands([](const CLI::App* one) { return !one->get_group().empty(); }))
    names.push_back(command->get_name());
  return names;
}

/// The options of a command and of those that it stands in.
inline std::vector<std::string> optionsOf(const CLI::App* app) {
  std::vector<std::string> names;
  for (; app; app = app->get_parent())
    for (const CLI::Option* option : app->get_options())
      for (const std::string& name : option->get_lnames()) names.push_back("--" + name);
  return names;
}

/// The command that was being read: the program itself, or the last one below it.
inline const CLI::App& commandOf(const CLI::App& program) {
  const CLI::App* command = &program;
  while (!command->get_subcommands().empty()) command = command->get_subcommands().back();
  return *command;
}

inline std::string nameOf(const CLI::App& command) {
  return command.get_parent() ? nameOf(*command.get_parent()) + " " + command.get_name() : command.get_name();
}

/// The same without the program, whose name stands before the sentence; the program's own for the program.
inline std::string shortNameOf(const CLI::App& command) {
  const CLI::App* parent = command.get_parent();
  return parent && parent->get_parent() ? shortNameOf(*parent) + " " + command.get_name() : command.get_name();
}

/// Of words that are neither commands, nor options, nor asked for: of the first, or of the first that was meant as an option.
inline std::string unexpected(const CLI::App& command, const std::vector<std::string>& words) {
  const auto option = std::ranges::find_if(words, [](const std::string& one) { return one.starts_with('-'); });
  const std::string& word = option == words.end() ? words.front() : *option;
  if (word.starts_with('-')) {
    const std::string name = word.substr(0, word.find('='));
    return "there is no option " + name + suggestion(name, optionsOf(&command));
  }
  const std::vector<std::string> commands = commandsOf(command);
  if (commands.empty()) return "\"" + word + "\" is one word too many for " + shortNameOf(command);
  return "there is no command \"" + word + "\"" + suggestion(word, commands);
}

inline std::string missingCommand(const CLI::App& command) {
  if (!command.get_parent()) return "a command is missing";
  std::string names;
  for (const std::string& name : commandsOf(command)) names += (names.empty() ? "" : ", ") + name;
  return shortNameOf(command) + " needs one of its commands: " + names;
}

/// What is wrong, from what CLI11 has thrown; texts of our own pass as they are.
inline std::string sentenceFor(const CLI::App& program, const CLI::ParseError& error) {
  const CLI::App& command = commandOf(program);
  const std::string said = error.what();
  const std::string name = said.substr(0, said.find(':'));
  const std::vector<std::string> words = program.remaining(true);
  switch (static_cast<CLI::ExitCodes>(error.get_exit_code())) {
    case CLI::ExitCodes::ExtrasError:
      return unexpected(command, words);
    case CLI::ExitCodes::RequiredError:
      // What was taken for no option and no command says more than that something is missing.
      if (!words.empty()) return unexpected(command, words);
      return said.starts_with("A subcommand") ? missingCommand(command)
                                              : shortNameOf(command) + " needs " + said.substr(0, said.rfind(" is required"));
    case CLI::ExitCodes::ArgumentMismatch:
      return name + (said.find("missing") != std::string::npos ? " needs a value" : " stands more than once");
    case CLI::ExitCodes::ConversionError:
      // Numbers are read by validators of our own, so only a flag is left.
      return said.substr(said.find("--"), said.find(" = ") - said.find("--")) + " takes no value";
    default:
      return error.what();
  }
}

/// The command whose help has the first option that the sentence names, as most options are the program's; else the one that was
/// being read.
inline const CLI::App& commandToReadOf(const CLI::App& program, const std::string& sentence) {
  const CLI::App& reading = commandOf(program);
  constexpr const char* kLetters = "abcdefghijklmnopqrstuvwxyz-";
  for (std::size_t at = sentence.find("--"); at != std::string::npos; at = sentence.find("--", at)) {
    const std::size_t end = std::min(sentence.find_first_not_of(kLetters, at), sentence.size());
    const std::string option = sentence.substr(at, end - at);
    for (const CLI::App* command = &reading; command; command = command->get_parent())
      if (command->get_option_no_throw(option)) return *command;
    at = end;
  }
  return reading;
}

/// The sentence, and the line that leads to help.
inline std::string refusalFor(const CLI::App& program, const CLI::ParseError& error) {
  const std::string sentence = sentenceFor(program, error);
  return sentence + "\nRun `" + nameOf(commandToReadOf(program, sentence)) + " --help` to see what it takes.";
}

}  // namespace platform::usage
