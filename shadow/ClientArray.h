#pragma once

namespace android {

// Client-memory vertex attribute array of one attribute index.
class ClientArray {
public:
    virtual ~ClientArray() = default;
};

}  // namespace android
