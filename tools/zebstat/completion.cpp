#include "completion.h"

#include <algorithm>
#include <vector>

#include "option_table.h"

namespace zebtool {

namespace {

std::string replaceAll(std::string text, std::string_view from, std::string_view to) {
  for (std::size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size())
    text.replace(at, from.size(), to);
  return text;
}

// Quotes a text for both shells.
std::string quote(const std::string& text) {
  return "'" + replaceAll(text, "'", "'\\''") + "'";
}

// Returns whether the table has the options of the command; otherwise the help of its program does.
bool hasRows(const CommandRow& command) {
  const auto isOfCommand = [&](const OptionRow& row) { return hasOption(command.command, row); };
  return std::any_of(allOptions().begin(), allOptions().end(), isOfCommand);
}

std::string commandNames(const char* between) {
  std::string names;
  for (const CommandRow& row : allCommands())
    names += (names.empty() ? "" : between) + std::string(row.name);
  return names;
}

// ---- bash ---------------------------------------------------------------------------------------

// Bash splits words at ':' and '=', so the function splits the line itself. An id may hold what the
// shell would execute, such as $(...): ids are offered quoted, and never pass through compgen -W,
// which expands its words.
constexpr char kBashStart[] = R"(# Completes zebstat; printed by `zebstat completion bash`.
_zebstat_offer() { # KIND [WORD...]
  local known=() word at options=()
  case $1 in
    words) known=("${@:2}") ;;
    file) compopt -o filenames && mapfile -t COMPREPLY < <(compgen -f -- "$current") && return ;;
    help)
      mapfile -t known < <("${line[0]}" "$command" --help 2>/dev/null | tr -s ' ,=[' '\n' |
        grep -E '^--?[[:alpha:]]') ;;
    host) mapfile -t COMPREPLY < <(compgen -A hostname -- "$current") && return ;;
    ids | groups)
      for ((at = 1; at < ${#line[@]} - 2; ++at)); do
        case ${line[at]} in
          -H | --host | -p | --port | --gateway) options+=("${line[at]}" "${line[at + 1]}") ;;
        esac
      done
      mapfile -t known < <("${line[0]}" "$1" --format value --timeout 1 "${options[@]}" \
        2>/dev/null) ;;
  esac
  for word in "${known[@]}"; do
    printf -v word %q "$word"
    [[ $word != "$current"* ]] || COMPREPLY+=("$word")
  done
}
_zebstat() {
  local line current word command='' option=''
  read -ra line <<<"${COMP_LINE:0:COMP_POINT}x"
  current=${line[-1]%x}
  for word in "${line[@]:1:${#line[@]}-2}"; do
    case $word in
      -*) option=$word ;;
      COMMANDS) [ -n "$command" ] || command=$word ;;
    esac
  done
  COMPREPLY=()
  [ "$option" != --group ] || [[ $current == -* ]] || { _zebstat_offer groups && return; }
  case $command:${line[-2]} in
)";

std::string kindInBash(Completion completion, const char* words) {
  switch (completion) {
    case Completion::kWords:
      return std::string("words ") + words;
    case Completion::kFile:
      return "file";
    case Completion::kHost:
      return "host";
    case Completion::kId:
      return "ids";
    case Completion::kGroup:
      return "groups";
    case Completion::kNothing:
      break;
  }
  return "words";
}

// Returns the patterns of COMMAND:OPTION for which the row holds. If another row has the same name,
// the command decides; otherwise the command may also follow.
std::string patternsInBash(const OptionRow& row) {
  auto hasName = [&](const OptionRow& other) { return std::string_view(other.name) == row.name; };
  if (std::count_if(allOptions().begin(), allOptions().end(), hasName) == 1)
    return "*:" + namesOf(row, " | *:");
  std::string patterns;
  for (const CommandRow& command : allCommands()) {
    if (!hasOption(command.command, row)) continue;
    patterns += (patterns.empty() ? "" : " | ") + std::string(command.name) + ":" + row.name;
  }
  return patterns;
}

std::string writeBash() {
  std::string text = replaceAll(kBashStart, "COMMANDS", commandNames(" | "));
  for (const OptionRow& row : allOptions()) {
    if (row.takes != Takes::kOne && row.takes != Takes::kRepeated) continue;
    text += "    " + patternsInBash(row) + ") _zebstat_offer " +
            kindInBash(row.completion, row.words) + " && return ;;\n";
  }
  text += "  esac\n  case $command:$current in\n";
  for (const CommandRow& command : allCommands()) {
    std::string options = hasRows(command) ? "words" : "help";
    for (const OptionRow& row : allOptions()) {
      if (hasOption(command.command, row)) options += " " + namesOf(row, " ");
    }
    text += std::string("    ") + command.name + ":-*) _zebstat_offer " + options + " ;;\n";
    text += std::string("    ") + command.name + ":*) _zebstat_offer " +
            kindInBash(command.completion, command.words) + " ;;\n";
  }
  return text + "    *) _zebstat_offer words " + commandNames(" ") +
         " ;;\n  esac\n}\ncomplete -F _zebstat zebstat\n";
}

// ---- zsh ----------------------------------------------------------------------------------------

constexpr char kZshStart[] = R"zsh(#compdef zebstat
# Completes zebstat; printed by `zebstat completion zsh`.
_zebstat_ask() { # ids|groups
  local -a known options
  local at
  for ((at = 1; at < CURRENT - 1; ++at)); do
    case $words[at] in
      -H | --host | -p | --port | --gateway) options+=("$words[at]" "$words[at + 1]") ;;
    esac
  done
  known=(${(f)"$(zebstat $1 --format value --timeout 1 $options 2>/dev/null)"})
  compadd -a known
}
_zebstat_help() { # the options that the help of another program lists
  local -a known
  known=(${(f)"$(zebstat $words[1] --help 2>/dev/null | tr -s ' ,=[' '\n' |
    grep -E '^--?[[:alpha:]]')"})
  compadd -a known
}
_zebstat() {
  local state
  local -a commands
  commands=(
)zsh";

std::string actionInZsh(Completion completion, const char* words) {
  switch (completion) {
    case Completion::kWords:
      return std::string("(") + words + ")";
    case Completion::kFile:
      return "_files";
    case Completion::kHost:
      return "_hosts";
    case Completion::kId:
      return "{_zebstat_ask ids}";
    case Completion::kGroup:
      return "{_zebstat_ask groups}";
    case Completion::kNothing:
      break;
  }
  return " ";
}

std::string writeZshOption(const OptionRow& row, const char* name) {
  bool isRepeated = row.takes == Takes::kRepeated || row.takes == Takes::kMany;
  std::string text = isRepeated ? "*" : "(" + namesOf(row, " ") + ")";
  text += std::string(name) + (row.takes == Takes::kOptional ? "=-" : "");
  text += "[" + std::string(*row.help != '\0' ? row.help : row.words) + "]";
  std::string argument =
      replaceAll(row.argument, ":", "\\:") + ":" + actionInZsh(row.completion, row.words);
  if (row.takes == Takes::kOptional) text += "::" + argument;
  if (row.takes == Takes::kOne || row.takes == Takes::kRepeated) text += ":" + argument;
  if (row.takes == Takes::kMany) text += ":*-*:" + argument;
  return " \\\n        " + quote(text);
}

std::string writeZsh() {
  std::string text = kZshStart;
  for (const CommandRow& row : allCommands()) {
    if (*row.summary != '\0')
      text += "    " + quote(std::string(row.name) + ":" + row.summary) + "\n";
  }
  text += R"zsh(  )
  _arguments -C '1: :->command' '*:: :->argument'
  [[ $state != command ]] || _describe command commands
  [[ $state == argument ]] || return
  case $words[1] in
)zsh";
  for (const CommandRow& command : allCommands()) {
    text += std::string("    ") + command.name + ")\n      ";
    text += hasRows(command) ? "_arguments" : "_zebstat_help";
    for (const OptionRow& row : allOptions()) {
      if (!hasOption(command.command, row)) continue;
      if (*row.shortName != '\0') text += writeZshOption(row, row.shortName);
      text += writeZshOption(row, row.name);
    }
    if (*command.argument != '\0') {
      text += " \\\n        " + quote("*:" + std::string(command.name) + ":" +
                                      actionInZsh(command.completion, command.words));
    }
    text += " ;;\n";
  }
  return text + "  esac\n}\n_zebstat \"$@\"\n";
}

}  // namespace

std::string writeCompletion(std::string_view shell) {
  if (shell == "bash") return writeBash();
  return shell == "zsh" ? writeZsh() : std::string();
}

}  // namespace zebtool
