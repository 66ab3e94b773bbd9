#pragma once

namespace android {

// A recorded GL call. Instances live in the frame arena and are recycled with
// it, so no destructor is ever run on them.
class Bridge {
public:
    virtual ~Bridge() = default;
    virtual void run() = 0;
    virtual const char* getName() = 0;
};

}  // namespace android
