// Foreground segmentation.
#include <cstdint>

#include "kelmtrova/image.h"

std::uint8_t needRefineSegment = 0;
