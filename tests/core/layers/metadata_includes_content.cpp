// Compiled as a file of the metadata layer: the content layer above it must be out of reach.
#include <core/content/ContentCache.hpp>
