// AdditiveRandom: the additive feedback generator behind random() of POSIX systems.
#pragma once

#include <array>
#include <cstdint>

// With 31 words of state, as initstate() gives random() for 128 bytes. The numbers of a seed are those of the
// GNU C library whatever C library is linked, and the process's own random() goes on undisturbed.
class AdditiveRandom {
  public:
    explicit AdditiveRandom(std::uint32_t seed) {
        constexpr std::int64_t kModulus = 2147483647;
        std::int64_t word = static_cast<std::int32_t>(seed != 0 ? seed : 1);
        for (std::uint32_t& next : words_) {
            next = static_cast<std::uint32_t>(word);
            word = word * 16807 % kModulus;
            if (word < 0) word += kModulus;
        }
        for (std::size_t i = 0; i < 10 * words_.size(); ++i)
            next();
    }

    // From 0 to 2^31 - 1: the sum of the words 31 and 3 places back, without its lowest bit.
    std::uint32_t next() {
        std::uint32_t& oldest = words_[place_];
        oldest += words_[(place_ + words_.size() - 3) % words_.size()];
        place_ = (place_ + 1) % words_.size();
        return oldest >> 1;
    }

  private:
    std::array<std::uint32_t, 31> words_;
    std::size_t place_ = 3;  // of the oldest word; the first three count as the latest at the start
};
