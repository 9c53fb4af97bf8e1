// Making the codec objects that a pipe owns.
#pragma once

#include <memory>

// Construction of a codec object never throws to the host: an object that cannot be made
// (its memory, for a huge frame size) counts as one that is not ready.
template <class Codec, class... Arguments>
std::unique_ptr<Codec> makeCodecObject(Arguments... arguments) {
    try {
        return std::make_unique<Codec>(arguments...);
    } catch (...) {
        return nullptr;
    }
}
