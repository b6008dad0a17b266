// Type aliases shared by the library's public headers.
#ifndef QVTYPES_H
#define QVTYPES_H

#include <string>

typedef const std::string& LPCSTR;
typedef std::string& LPRSTR;
typedef const char* LPCSZ;
typedef char* LPSZ;
typedef long* LPLONG;
typedef void* LPVOID;
typedef bool* LPBOOL;
typedef unsigned char ByteInt;
typedef ByteInt* pByteInt;
typedef unsigned int BITS;
typedef unsigned int UINT;

#endif
