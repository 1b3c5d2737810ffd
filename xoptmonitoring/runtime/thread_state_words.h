// A thread state seen as the run of words that it begins with: for finding a field by watching the interpreter change
// it, which needs no table and so also serves versions that no table knows.
#pragma once

#include "xoptmonitoring/binding/xpy_c_api.h"

#include <array>

/// One word of a thread state.
template <class Word>
Word load_word(const PyThreadState* tstate, std::size_t index) {
    return __atomic_load_n(reinterpret_cast<const Word*>(tstate) + index, __ATOMIC_RELAXED);
}

/// The first words of a thread state, as they are now: other threads write to some of them. `kCount` of them have to be
/// there in every interpreter that is asked.
template <class Word, std::size_t kCount>
std::array<Word, kCount> words_of(const PyThreadState* tstate) {
    std::array<Word, kCount> words{};
    for (std::size_t index = 0; index < kCount; ++index) {
        words[index] = load_word<Word>(tstate, index);
    }
    return words;
}
