// Test helpers: owning volume handles, one per kind of release.
#pragma once

#include <memory>

#include "morven/volume.h"

namespace morven_test {

template <void (*Release)(wzVolume **)>
struct VolumeDeleter {
    void operator()(wzVolume *v) const { Release(&v); }
};
using VolumePtr = std::unique_ptr<wzVolume, VolumeDeleter<wzVolumeRelease>>;
using SeparatePtr = std::unique_ptr<wzVolume, VolumeDeleter<wzVolumeReleaseWithSeparatePlanes>>;
using VolumeHeaderPtr = std::unique_ptr<wzVolume, VolumeDeleter<wzVolumeReleaseHeader>>;

}  // namespace morven_test
