// RecordGuard: watches what a web server sends over a FastCGI connection.
#pragma once

#include <cstddef>
#include <cstdint>

// libfcgi takes each length that a parameter announces at its word, and ends the process when there is no memory for it.
// The guard follows the bytes before libfcgi has them. It refuses a request whose parameters are longer than the limit
// in all; management records, of which libfcgi keeps a part for ever; and what makes libfcgi take any bytes for
// records: another version, padding where it expects none. One for each request.
class RecordGuard {
  public:
    static constexpr std::uint32_t kMostOfParameters = 4u << 20;  // bytes, names and values together

    // The next bytes of the connection; false from the first on that is refused.
    bool allows(const void* bytes, std::size_t count);

  private:
    void takeHead(unsigned char byte);
    void takeParameter(unsigned char byte);

    bool isRefused_ = false;
    unsigned char head_[8] = {};  // of the record under way
    unsigned headSize_ = 0;
    unsigned requestId_ = 0;         // of the request that has begun; 0: none has
    std::uint32_t contentLeft_ = 0;  // of the record
    std::uint32_t paddingLeft_ = 0;
    bool hasParameters_ = false;    // the record is of the request's parameters
    std::uint32_t length_ = 0;      // that is being read
    unsigned lengthBytesLeft_ = 0;  // of it
    bool isValueNext_ = false;      // the length is a value's
    std::uint32_t nameLength_ = 0;
    std::uint32_t textLeft_ = 0;    // of the parameter under way, name and value
    std::uint32_t parameters_ = 0;  // bytes that were announced so far
};
