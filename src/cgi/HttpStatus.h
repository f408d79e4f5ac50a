// HttpStatus: the HTTP status that tells a browser of a failure (RFC 9110, 15).
#pragma once

struct HttpStatus {
    int code;
    const char* reason;
};

constexpr HttpStatus kBadRequest{400, "Bad Request"};
constexpr HttpStatus kLengthRequired{411, "Length Required"};
constexpr HttpStatus kContentTooLarge{413, "Content Too Large"};
constexpr HttpStatus kInternalServerError{500, "Internal Server Error"};
constexpr HttpStatus kBadGateway{502, "Bad Gateway"};
constexpr HttpStatus kServiceUnavailable{503, "Service Unavailable"};
constexpr HttpStatus kGatewayTimeout{504, "Gateway Timeout"};
