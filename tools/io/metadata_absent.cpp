// The metadata interface of a build without Exiv2: nothing is read or
// written, orientation is not known.
#include "metadata.hpp"

namespace morven::tool {

struct EmbeddedMetadata {};

bool metadataAvailable() { return false; }
void initMetadata() {}
std::shared_ptr<const EmbeddedMetadata> readMetadata(Bytes, std::string *) { return nullptr; }
int orientationOf(const EmbeddedMetadata &) { return 1; }
Resolution resolutionOf(const EmbeddedMetadata &) { return {}; }
std::vector<std::string> describeMetadata(const EmbeddedMetadata &) { return {}; }
void embedMetadata(std::vector<uint8_t> &, Format, const EmbeddedMetadata &, const Picture &,
                   std::vector<std::string> *) {}

}  // namespace morven::tool
