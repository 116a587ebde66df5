// manual_text.cpp -- see manual_text.h.
#include "manual_text.h"

#include <stdio.h>

namespace tarn_manual {

std::string roff(const std::string &text) {
  std::string escaped;
  bool line_start = true;
  for (const char c : text) {
    if (line_start && (c == '.' || c == '\'')) escaped += "\\&";
    if (c == '\\') {
      escaped += "\\e";
    } else if (c == '-') {
      escaped += "\\-";
    } else {
      escaped += c;
    }
    line_start = c == '\n';
  }
  return escaped;
}

void print_block(const std::string &text) { printf(".RS\n.nf\n%s.fi\n.RE\n", roff(text).c_str()); }

namespace {

// words with word added, unless it is there already.
void add_word(std::string *words, const std::string &word) {
  if ((" " + *words + " ").find(" " + word + " ") == std::string::npos) *words += (words->empty() ? "" : " ") + word;
}

}  // namespace

std::string bash_completion(const std::string &program, const std::string &leading, const std::string &common,
                            const std::vector<std::string> &value_options, const std::vector<CompletionEntry> &entries) {
  std::string function = "_" + program;
  for (char &c : function) {
    if (c == '-') c = '_';
  }
  std::string firsts = leading;
  std::string groups;
  std::string cases;
  for (const CompletionEntry &entry : entries) {
    const size_t blank = entry.name.find(' ');
    const std::string group = entry.name.substr(0, blank);
    add_word(&firsts, group);
    if (blank != std::string::npos && groups.find("\n    " + group + ")") == std::string::npos) {
      std::string seconds;
      for (const CompletionEntry &other : entries) {
        if (other.name.rfind(group + " ", 0) == 0) add_word(&seconds, other.name.substr(blank + 1));
      }
      groups += "\n    " + group + ") words=\"" + seconds + "\" ;;";
    }
    std::string options = common;
    for (const std::string &option : entry.options) add_word(&options, option);
    cases += "\n    \"" + entry.name + "\"|\"" + entry.name + " \"*) words=\"" + options + "\"; files=1 ;;";
  }
  std::string skipped;
  for (const std::string &option : value_options) skipped += (skipped.empty() ? "" : "|") + option;
  return "# bash completion for " + program + " (made by " + program + " --print-completion)\n" + function +
         "() {\n"
         "  local cur=${COMP_WORDS[COMP_CWORD]} command=\"\" words=\"\" files=0 i\n"
         "  for ((i = 1; i < COMP_CWORD; i++)); do\n"
         "    case ${COMP_WORDS[i]} in\n"
         "      " + skipped + ") ((i++)) ;;\n"
         "      -*) ;;\n"
         "      *) command=\"${command:+$command }${COMP_WORDS[i]}\" ;;\n"
         "    esac\n"
         "  done\n"
         "  case ${COMP_WORDS[COMP_CWORD - 1]} in\n"
         "    " + skipped + ") COMPREPLY=($(compgen -f -- \"$cur\")); return 0 ;;\n"
         "  esac\n"
         "  case $command in\n"
         "    \"\") words=\"" + firsts + "\" ;;" + groups + cases + "\n"
         "  esac\n"
         "  if [[ $cur == -* || $files == 0 ]]; then\n"
         "    COMPREPLY=($(compgen -W \"$words\" -- \"$cur\"))\n"
         "  else\n"
         "    COMPREPLY=($(compgen -f -- \"$cur\"))\n"
         "  fi\n"
         "}\n"
         "complete -o filenames -F " + function + " " + program + "\n";
}

}  // namespace tarn_manual
