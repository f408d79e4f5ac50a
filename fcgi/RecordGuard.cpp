#include "RecordGuard.h"

#include <algorithm>

namespace {

constexpr unsigned char kVersion = 1;
constexpr unsigned char kBeginRequest = 1;
constexpr unsigned char kParams = 4;

}  // namespace

bool RecordGuard::allows(const void* bytes, std::size_t count) {
    const auto* next = static_cast<const unsigned char*>(bytes);
    const unsigned char* end = next + count;
    while (next != end && !isRefused_) {
        const auto left = static_cast<std::uint32_t>(
            std::min<std::size_t>(static_cast<std::size_t>(end - next), UINT32_MAX));
        if (headSize_ < sizeof head_) {
            takeHead(*next++);
        } else if (contentLeft_ != 0 && hasParameters_ && textLeft_ == 0) {
            --contentLeft_;
            takeParameter(*next++);
        } else if (contentLeft_ != 0) {
            const std::uint32_t passed =
                std::min({left, contentLeft_, hasParameters_ ? textLeft_ : contentLeft_});
            contentLeft_ -= passed;
            if (hasParameters_) textLeft_ -= passed;
            next += passed;
        } else {
            const std::uint32_t passed = std::min(left, paddingLeft_);
            paddingLeft_ -= passed;
            next += passed;
        }
        if (headSize_ == sizeof head_ && contentLeft_ == 0 && paddingLeft_ == 0) headSize_ = 0;
    }
    return !isRefused_;
}

void RecordGuard::takeHead(unsigned char byte) {
    head_[headSize_++] = byte;
    if (headSize_ < sizeof head_) return;
    const unsigned char type = head_[1];
    const unsigned id = static_cast<unsigned>(head_[2]) << 8 | head_[3];
    contentLeft_ = static_cast<std::uint32_t>(head_[4]) << 8 | head_[5];
    paddingLeft_ = head_[6];
    const bool isMisread = paddingLeft_ != 0 && (type == kBeginRequest || contentLeft_ == 0);
    isRefused_ = head_[0] != kVersion || id == 0 || isMisread;
    if (type == kBeginRequest && requestId_ == 0) requestId_ = id;
    hasParameters_ = type == kParams && id == requestId_;
}

// A byte of a length: one of 7 bits, or the first of four.
void RecordGuard::takeParameter(unsigned char byte) {
    if (lengthBytesLeft_ == 0) {
        lengthBytesLeft_ = (byte & 0x80) != 0 ? 4 : 1;
        length_ = 0;
        byte &= 0x7F;
    }
    length_ = length_ << 8 | byte;
    if (--lengthBytesLeft_ != 0) return;
    isRefused_ = length_ > kMostOfParameters - parameters_;
    if (isRefused_) return;
    parameters_ += length_;
    if (isValueNext_) {
        textLeft_ = nameLength_ + length_;
    } else {
        nameLength_ = length_;
    }
    isValueNext_ = !isValueNext_;
}
