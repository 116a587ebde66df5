/* parameter_parsing.h -- the command-line parser of the agent's processes.
 *
 * The agent's processes take command lines of one strict shape: options of
 * exactly one letter after a single dash, each followed by zero or more
 * plain arguments:
 *
 *   prog -a x y -b -a z
 *
 * argment_paras_create turns argc/argv into a handle that maps each option
 * ("-a", with its dash) to the list of its arguments, and the other
 * functions answer questions about it. Grammar, for the words after the
 * program name, left to right:
 *
 *   - a word whose first character is '-' is an option; it must be exactly
 *     two characters long ("-p", and also "--"), else the whole command
 *     line is refused;
 *   - any other word is an argument of the most recent option; an argument
 *     before the first option makes the command line invalid;
 *   - an option given more than once keeps one entry, and the arguments of
 *     all its occurrences are appended to its list, in order (the example
 *     gives "-a" with "x", "y", "z" and "-b" with none);
 *   - an option followed by no argument is present with an empty list.
 *
 * Table order. The options are kept in a hash table (tarn_xhash.h) whose
 * walk visits them in the order in which each option first appeared on the
 * command line; every walk of one handle gives the same order.
 * argment_paras_get_option_pos_at and argment_paras_print follow it. It is
 * not the order of the words: for the example the options are "-a" (with
 * all three arguments), then "-b".
 *
 * Ownership. The handle, its table, the argument lists (tarn_vector.h
 * vectors of strings) and every string in them belong to the handle and are
 * released by argment_paras_free_args; vectors and strings returned by the
 * queries stay valid until then and must not be changed or freed by the
 * caller. The arguments are copies, and the table keeps its own copy of
 * each option text, so argv may go away after argment_paras_create.
 *
 * Lookups use the option text's length plus one (its terminator) as the
 * key length, so only two-character texts such as "-a" can ever match.
 *
 * Bad input, for the queries and argment_paras_free_args and
 * argment_paras_print, is a null handle, a handle whose options table is
 * null, or a null option text; it is logged at warn as "Invalid input".
 * An option that is simply absent is never logged.
 *
 * Messages are logged through the library's log with the level given; each
 * ends with a line end. A handle is not locked: one thread at a time.
 */
#ifndef PARAMETER_PARSING_H
#define PARAMETER_PARSING_H

#include <stdint.h>

#include <tarnbase/tarn_vector.h>
#include <tarnbase/tarn_xhash.h>

#include "tarnaux_api.h"

TARNAUX_BEGIN_DECLS

/* The parsed command line. */
typedef struct argment_paras {
  /* Key: the option text with its dash and its terminator ("-p", key
   * length 3). Value: a tarn_vector_t of the option's argument strings.
   * The table owns its values. */
  tarn_xhash_t *options;
  /* argc - 1: the number of words after the program name, options and
   * arguments together. */
  uint32_t args_count;
} argment_paras;

/* Parses argv[1] to argv[argc - 1] into a new handle; argv[0], the program
 * name, is not looked at. Returns the handle, which the caller releases
 * with argment_paras_free_args, or null when the command line is refused;
 * whatever was built is then freed, so testing for null is enough:
 *   - argc below 2 or a null argv: "Invalid input" at warn;
 *   - a null word: "Invalid argument at index <i>" at warn, i its index in
 *     argv;
 *   - a word that begins with '-' and is not two characters long ("-ab",
 *     "-"): nothing is logged;
 *   - an argument before the first option: "There is an illegal command
 *     line present" at warn;
 *   - memory runs out: "Fail to malloc" at warn for the handle, an
 *     argument list or its growth, "Fail to create hash" at warn for the
 *     table, "Failed to strdup" at warn for the copy of an argument. */
TARNAUX_API argment_paras *argment_paras_create(int32_t argc, char **argv);

/* Frees the table (every argument list and string in it) and the handle.
 * A null handle, or a handle whose table is null, logs "Invalid input" at
 * warn and is not freed. While the table is freed, an entry whose list is
 * null also logs "Invalid input" at warn (argment_paras_create never makes
 * one). */
TARNAUX_API void argment_paras_free_args(argment_paras *handle);

/* Logs at info, in table order, "option[<option>]" for each option and
 * after it "parameters[<i>][<argument>]" for each of its arguments, i
 * counting from 0. Bad input logs "Invalid input" at warn. */
TARNAUX_API void argment_paras_print(const argment_paras *handle);

/* 1 when option is on the command line, else 0 (also for texts that are
 * not two characters long, such as "-ab"). Bad input gives 0 and logs
 * "Invalid input" at warn. */
TARNAUX_API int32_t argment_paras_option_is_exist(const argment_paras *handle, const char *option);

/* The option's arguments, in order: a vector of zero-terminated strings
 * (read them with tarn_vector_size and tarn_vector_pos_at), empty for an
 * option given without arguments. Owned by the handle. Null for an absent
 * option; null with "Invalid input" at warn for bad input, which here also
 * includes an option text that does not begin with '-'. */
TARNAUX_API tarn_vector_t *argment_paras_get_option_args(const argment_paras *handle,
                                                         const char *option);

/* The number of the option's arguments; 0 for an absent option; 0 with
 * "Invalid input" at warn for bad input, which here also includes an option
 * text that does not begin with '-' ("a"). */
TARNAUX_API uint32_t argment_paras_get_option_args_count(const argment_paras *handle,
                                                         const char *option);

/* The number of distinct options; 0 with "Invalid input" at warn for bad
 * input. */
TARNAUX_API uint32_t argment_paras_get_option_count(const argment_paras *handle);

/* The option's argument at index (0 is the first), owned by the handle.
 * Null without a message for an absent option, a negative index, or an
 * index at or past the number of its arguments; null with "Invalid input"
 * at warn for bad input. */
TARNAUX_API const char *argment_paras_get_option_arg_pos_at(const argment_paras *handle,
                                                            const char *option, int32_t index);

/* The text of the index-th option in table order ("-a"; 0 is the first),
 * owned by the handle. Null without a message when index is not below the
 * number of options; null with "Invalid input" at warn for bad input, which
 * here also includes a negative index. */
TARNAUX_API const char *argment_paras_get_option_pos_at(const argment_paras *handle, int32_t index);

/* args_count: argc - 1 of the parsed command line, the number of words
 * after the program name. 0 with "Invalid input" at warn for bad input. */
TARNAUX_API uint32_t argment_paras_get_args_count(const argment_paras *handle);

TARNAUX_END_DECLS

#endif
