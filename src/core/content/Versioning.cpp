#include <core/content/Versioning.hpp>

namespace storage::overlayprovider::Versioning {

std::u16string GetVersionString() { return u"V1.0"; }

}  // namespace storage::overlayprovider::Versioning
