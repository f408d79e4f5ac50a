/* The protocol's numbers: message types and parameter ids. Usable from C as from C++. */
#ifndef VELARTO_QUIL_TYPES_H
#define VELARTO_QUIL_TYPES_H

/* Types come over the wire and ids from callers in C: any number must be a value of the enumeration. */
#ifdef __cplusplus
#define VELARTO_ANY_NUMBER : unsigned int
#else
#define VELARTO_ANY_NUMBER
#endif

/* The type in every message header; also tells a dispatch callback what it is called for. */
typedef enum TQUILReqType VELARTO_ANY_NUMBER {
    QUIL_REQUEST = 1,      /* client to server: the request */
    QUIL_FILE_REQUEST = 2, /* server to client: a file path; answered with QUIL_FILE_REPLY */
    QUIL_FILE_REPLY = 3,   /* client to server: result code and, when true, the file's bytes */
    QUIL_BODY_DATA = 4,    /* server to client: a piece of the response body; acknowledged */
    QUIL_HTTP_HEADER = 6,  /* server to client: the HTTP response header; acknowledged */
    QUIL_END = 7           /* server to client: end of the response */
} TQUILReqType;

/* The 25 parameters of a request; QUIL_PARAM_NONE means no such parameter. */
typedef enum TQUILReqParamID VELARTO_ANY_NUMBER {
    QUIL_PARAM_QUERY_STRING = 0,
    QUIL_PARAM_PATH_INFO = 1,
    QUIL_PARAM_PATH_TRANSLATED = 2,
    QUIL_PARAM_REQUEST_METHOD = 3,
    QUIL_PARAM_REMOTE_HOST = 4,
    QUIL_PARAM_REMOTE_IDENT = 5,
    QUIL_PARAM_REMOTE_USER = 6,
    QUIL_PARAM_REMOTE_PASSWD = 7,
    QUIL_PARAM_REMOTE_NAME = 8,
    QUIL_PARAM_REMOTE_PORT = 9,
    QUIL_PARAM_SERVER_NAME = 10,
    QUIL_PARAM_SERVER_PORT = 11,
    QUIL_PARAM_SCRIPT_NAME = 12,
    QUIL_PARAM_HTTP_REFERER = 13,
    QUIL_PARAM_HTTP_USER_AGENT = 14,
    QUIL_PARAM_CONTENT_TYPE = 15,
    QUIL_PARAM_CONTENT_LENGTH = 16,
    QUIL_PARAM_PLUGIN = 17,
    QUIL_PARAM_REMOTE_ADDR = 18,
    QUIL_PARAM_HTTP_COOKIE = 19,
    QUIL_PARAM_COMMANDLINE = 20,
    QUIL_PARAM_HTTP_FROM = 21,
    QUIL_PARAM_HTTP_ACCEPT = 22,
    QUIL_PARAM_SOAPACTION = 23,
    QUIL_PARAM_FULLHEADER = 24,
    QUIL_PARAM_NONE = 25
} TQUILReqParamID;

/* The version that every message header carries: bytes FF FD FF FD on the wire. */
#define QUIL_PROTOCOL_VERSION 0xFFFDFFFDu

#endif
