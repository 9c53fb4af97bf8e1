#include "NVCompression/NvCodec/NvEncoder/NvCodecException.h"

#include <cstring>

std::string qualifiedFunctionName(const char* prettyFunction) {
    // "<return type> <Class::Method>(<arguments>) [qualifiers]": the name ends at the
    // first '(' and starts after the last space before it.
    const char* end = std::strchr(prettyFunction, '(');
    if (!end) return prettyFunction;
    const char* begin = end;
    while (begin > prettyFunction && begin[-1] != ' ') --begin;
    return std::string(begin, end);
}
