// manual_text.h -- the manual page pieces and the bash completion that the
// command-line tools print from their own command tables (--print-man,
// --print-completion), so that neither can drift from what the tools take.
#ifndef TARN_MANUAL_TEXT_H
#define TARN_MANUAL_TEXT_H

#include <string>
#include <vector>

namespace tarn_manual {

// text for a roff source line: backslashes and minus signs escaped, and a
// line that would begin with a control character ('.' or '\'') made plain.
std::string roff(const std::string &text);

// Prints text as a preformatted, indented block of a manual page (its lines
// kept as they stand; text ends with a line end).
void print_block(const std::string &text);

// One subcommand for the completion: its name (one or two words) and its
// own options.
struct CompletionEntry {
  std::string name;
  std::vector<std::string> options;
};

// The bash completion script of program: before a subcommand, the words of
// leading (options) and the first words of the entries; after a group's
// first word, its second words; after a subcommand, common and its own
// options (for a word that begins with '-') or file names. A word after an
// option in value_options is that option's value and is skipped.
std::string bash_completion(const std::string &program, const std::string &leading, const std::string &common,
                            const std::vector<std::string> &value_options, const std::vector<CompletionEntry> &entries);

}  // namespace tarn_manual

#endif
