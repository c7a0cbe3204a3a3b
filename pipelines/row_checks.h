// A float row's checks for NaN and -0.0, gathered in registers.
//
// The column-first path of a float stage folds, beside each column's value,
// the sum of its samples (NaN where one is NaN) and a word that tells
// whether one is -0.0, into buffers of their own; each output then tests
// its window's first and last columns, and the row gathers those tests
// (together they cover every column the row reads). That costs a load and a
// store of both per sample folded, and about 15 instructions per output
// vector for the tests.
//
// This pass folds the sums and words into a few vector accumulators per row
// instead and tests them once, at the end of the row. The sums of a loop's
// body alternate between two accumulators, so that each addition waits on
// one made two vectors before (on a block of four vectors, one accumulator
// of each per vector spilled to the stack: 8 % more instructions); its words
// share one. Every accumulator starts each row from the fold's identity
// (0.0 for sums). The buffers of sums and words and the
// per-output tests go. Every sample a column folds still passes through a
// sum and a word, so a NaN or -0.0 among the samples the row reads still
// flags it; so may an infinity where the opposite one (or a sum that
// overflowed to it) meets it in an accumulator, and so may a NaN in the few
// columns past the row's reach that a chunk's buffer holds: such a row is
// folded again for nothing, as rows with infinities of both signs in a
// column were.
#pragma once

#include <Halide.h>

#include <string>

namespace flatmorph {

struct RowChecks {
    std::string sums, words;  // the column buffers of sums and words
    std::string tests;        // the buffer of the per-output tests
    std::string row_flag;     // a byte on the stack: 1 where the row must be folded again
    bool word_minimum;        // the word is the least of the samples' bits (else an OR of marks)
};

// A lowering pass giving the body of the first parallel loop (the row
// loop) its checks gathered in accumulators named after `accumulators`,
// and ending it with the row's flag stored.
Halide::Internal::IRMutator *make_row_checks_pass(const RowChecks &checks, const std::string &accumulators);

}  // namespace flatmorph
