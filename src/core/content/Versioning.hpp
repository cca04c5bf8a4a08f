// The plug-in's version text.
#pragma once

#include <string>

namespace storage::overlayprovider::Versioning {

// "V1.0".
std::u16string GetVersionString();

}  // namespace storage::overlayprovider::Versioning
