// The prompt: one command on each line of standard input.
#ifndef WORDS_PROMPT_H
#define WORDS_PROMPT_H

#include <cstdint>

#include "word_search.h"

// Reads and answers commands until the input ends or the user quits. A command that makes no sense
// gets one line on standard error, and the prompt goes on.
//
// k            the number of neighbours shown.
// interactive  whether a greeting and a prompt sign are printed.
void run_prompt(WordSearch& search, std::int32_t k, bool interactive);

#endif
