// A provider that accepts a configuration tree.
#pragma once

#include <foundation/storage/provider/IProvider.hpp>

#include <boost/property_tree/ptree.hpp>

namespace foundation::storage::provider {

class IConfigurableProvider : public IProvider {
 public:
  /* 54 */ virtual void doConfigure(boost::property_tree::ptree config) = 0;
};

}  // namespace foundation::storage::provider
