// Compiled as a file of the metadata layer: a layer below it is in reach.
#include <core/util/Logger.hpp>
