#include <foundation/storage/provider/BundleRuntime.hpp>

#include <fl/i18n.hpp>

#include <boost/property_tree/json_parser.hpp>

#include <dlfcn.h>
#include <elf.h>

#include <algorithm>
#include <bit>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>

namespace foundation::storage::provider {

namespace {

using boost::property_tree::ptree;

// Generous limits that keep a damaged file from making us read gigabytes.
constexpr std::uint64_t kMaxSectionCount = 1u << 20;
constexpr std::uint64_t kMaxNameTableSize = 64u << 20;
constexpr std::uint64_t kMaxManifestSize = 4u << 20;

std::string quoted(std::filesystem::path const& path) { return "\"" + path.string() + "\""; }

[[noreturn]] void fail(std::filesystem::path const& module, std::string const& problem) {
  throw BundleError("Cannot load bundle " + quoted(module) + ": " + problem, module);
}

// Reads exactly `size` bytes at `offset`, or fails naming the module as damaged.
void readAt(std::ifstream& in, std::filesystem::path const& module, std::uint64_t offset, void* into,
            std::uint64_t size) {
  in.clear();
  in.seekg(static_cast<std::streamoff>(offset));
  in.read(static_cast<char*>(into), static_cast<std::streamsize>(size));
  if (!in || static_cast<std::uint64_t>(in.gcount()) != size) {
    fail(module, "not a loadable module (the file is damaged: cannot read " + std::to_string(size) +
                     " bytes at offset " + std::to_string(offset) + ")");
  }
}

// True when [offset, offset + size) lies within a file of `fileSize` bytes.
bool within(std::uint64_t offset, std::uint64_t size, std::uint64_t fileSize) {
  return offset <= fileSize && size <= fileSize - offset;
}

// The first manifest component ("scr"/"components"[0]), or null.
ptree const* firstComponent(ptree const& manifest) {
  auto components = manifest.get_child_optional(ptree::path_type("scr/components", '/'));
  if (!components || components->empty()) return nullptr;
  return &components->begin()->second;
}

std::vector<std::string> interfacesOf(ptree const& component) {
  std::vector<std::string> out;
  auto node = component.get_child_optional(ptree::path_type("service/interfaces", '/'));
  if (!node) return out;
  if (node->empty()) {
    if (!node->data().empty()) out.push_back(node->data());
  } else {
    for (auto const& child : *node) out.push_back(child.second.data());
  }
  return out;
}

bool isIdentifier(std::string const& text) {
  if (text.empty() || std::isdigit(static_cast<unsigned char>(text.front()))) return false;
  return std::all_of(text.begin(), text.end(), [](char c) {
    return std::isalnum(static_cast<unsigned char>(c)) || c == '_';
  });
}

std::u16string asciiLower(std::u16string text) {
  for (auto& c : text) {
    if (c >= u'A' && c <= u'Z') c = static_cast<char16_t>(c - u'A' + u'a');
  }
  return text;
}

}  // namespace

BundleError::BundleError(std::string const& message, std::filesystem::path modulePath)
    : std::runtime_error(message), modulePath_(std::move(modulePath)) {}

// An open module; closed when the last holder lets go.
struct BundleRuntime::Module {
  explicit Module(void* handle) : handle(handle) {}
  Module(Module const&) = delete;
  Module& operator=(Module const&) = delete;
  ~Module() { dlclose(handle); }
  void* const handle;
};

namespace {

// Keeps the module open for as long as a provider it made is alive. Members are destroyed
// in reverse order: the provider first, then (possibly) the module.
struct ProviderHold {
  std::shared_ptr<void> module;
  std::shared_ptr<IProvider> provider;
};

// The factory registered for a bundle: forwards to the module's factory and ties the life
// of the module to it and to every provider it makes.
class ModuleFactory final : public ContainerProviderFactory {
 public:
  ModuleFactory(std::shared_ptr<void> module, std::shared_ptr<ContainerProviderFactory> inner)
      : module_(std::move(module)), inner_(std::move(inner)) {}

  std::shared_ptr<IProvider> createProvider(StorageItem const& item) override {
    auto provider = inner_->createProvider(item);
    if (!provider) return nullptr;
    auto hold = std::make_shared<ProviderHold>(ProviderHold{module_, std::move(provider)});
    IProvider* raw = hold->provider.get();
    return std::shared_ptr<IProvider>(std::move(hold), raw);
  }
  StorageIRI createContainerIRI(StorageItem const& item) override { return inner_->createContainerIRI(item); }

 private:
  std::shared_ptr<void> const module_;  // declared first: released after inner_
  std::shared_ptr<ContainerProviderFactory> const inner_;
};

}  // namespace

struct BundleRuntime::Record {
  LoadedBundle info;
  std::shared_ptr<Module> module;
  std::unique_ptr<BundleContext> context;
  bundle_abi::SetContextFunction setContext = nullptr;
  bundle_abi::DeleteInstanceFunction deleteInstance = nullptr;
  void* instance = nullptr;  // from NewInstance_, handed back to deleteInstance
};

BundleRuntime::BundleRuntime(ProviderRegistry& registry) : registry_(registry) {}

BundleRuntime::~BundleRuntime() {
  std::lock_guard lock(mutex_);
  while (!bundles_.empty()) {
    auto record = std::move(bundles_.back());
    bundles_.pop_back();
    release(*record);
  }
}

std::string BundleRuntime::readManifestText(std::filesystem::path const& module) {
  std::error_code ec;
  if (!std::filesystem::exists(module, ec)) fail(module, "the file does not exist");
  if (!std::filesystem::is_regular_file(module, ec)) fail(module, "not a loadable module (not a regular file)");
  auto const fileSize = static_cast<std::uint64_t>(std::filesystem::file_size(module, ec));
  if (ec) fail(module, "cannot read the file: " + ec.message());
  std::ifstream in(module, std::ios::binary);
  if (!in) fail(module, std::string("cannot open the file: ") + std::strerror(errno));

  Elf64_Ehdr header{};
  if (fileSize < sizeof header) fail(module, "not a loadable module (not an ELF64 file)");
  readAt(in, module, 0, &header, sizeof header);
  if (std::memcmp(header.e_ident, ELFMAG, SELFMAG) != 0 || header.e_ident[EI_CLASS] != ELFCLASS64) {
    fail(module, "not a loadable module (not an ELF64 file)");
  }
  // Only modules for this machine can be loaded; the fields below are read natively.
  unsigned char const nativeData = std::endian::native == std::endian::little ? ELFDATA2LSB : ELFDATA2MSB;
  if (header.e_ident[EI_DATA] != nativeData) fail(module, "not a loadable module (ELF64 of another byte order)");

  if (header.e_shoff == 0) fail(module, "no manifest (the module has no sections, so no \".bundle.manifest\" section)");
  if (header.e_shentsize < sizeof(Elf64_Shdr)) fail(module, "not a loadable module (the file is damaged: bad section header size)");
  if (!within(header.e_shoff, header.e_shentsize, fileSize)) {
    fail(module, "not a loadable module (the file is damaged: section table outside the file)");
  }
  auto sectionAt = [&](std::uint64_t index) {
    Elf64_Shdr section{};
    readAt(in, module, header.e_shoff + index * header.e_shentsize, &section, sizeof section);
    return section;
  };
  // Large counts and string table indices live in section 0 (ELF extended numbering).
  std::uint64_t count = header.e_shnum;
  std::uint64_t nameIndex = header.e_shstrndx;
  if (count == 0 || nameIndex == SHN_XINDEX) {
    auto const first = sectionAt(0);
    if (count == 0) count = first.sh_size;
    if (nameIndex == SHN_XINDEX) nameIndex = first.sh_link;
  }
  if (count > kMaxSectionCount || !within(header.e_shoff, count * header.e_shentsize, fileSize)) {
    fail(module, "not a loadable module (the file is damaged: section table outside the file)");
  }
  if (nameIndex == SHN_UNDEF || nameIndex >= count) {
    fail(module, "no manifest (the module has no section names, so no \".bundle.manifest\" section)");
  }
  auto const names = sectionAt(nameIndex);
  if (names.sh_type == SHT_NOBITS || names.sh_size > kMaxNameTableSize || !within(names.sh_offset, names.sh_size, fileSize)) {
    fail(module, "not a loadable module (the file is damaged: bad section name table)");
  }
  std::string nameTable(names.sh_size, '\0');
  readAt(in, module, names.sh_offset, nameTable.data(), names.sh_size);

  std::string const wanted = bundle_abi::kManifestSection;
  for (std::uint64_t i = 0; i < count; ++i) {
    auto const section = sectionAt(i);
    if (section.sh_name >= nameTable.size()) continue;
    auto const end = nameTable.find('\0', section.sh_name);
    if (end == std::string::npos || nameTable.compare(section.sh_name, end - section.sh_name, wanted) != 0) continue;

    if (section.sh_type == SHT_NOBITS || !within(section.sh_offset, section.sh_size, fileSize)) {
      fail(module, "not a loadable module (the file is damaged: the manifest section lies outside the file)");
    }
    if (section.sh_size > kMaxManifestSize) {
      fail(module, "the manifest is larger than " + std::to_string(kMaxManifestSize) + " bytes");
    }
    std::string text(section.sh_size, '\0');
    readAt(in, module, section.sh_offset, text.data(), section.sh_size);
    auto const nul = text.find('\0');
    if (nul == std::string::npos) fail(module, "the manifest in section \".bundle.manifest\" is not NUL-terminated");
    text.resize(nul);
    return text;
  }
  fail(module, "no manifest (no \".bundle.manifest\" section)");
}

LoadedBundle const& BundleRuntime::load(std::filesystem::path const& modulePath) {
  std::error_code ec;
  auto path = std::filesystem::absolute(modulePath, ec);
  if (ec) path = modulePath;
  path = path.lexically_normal();

  // Manifest first: nothing of the module runs before it is known to be a bundle.
  auto const text = readManifestText(path);
  LoadedBundle info;
  info.modulePath = path;
  try {
    std::istringstream stream(text);
    boost::property_tree::read_json(stream, info.manifest);
  } catch (boost::property_tree::json_parser_error const& e) {
    fail(path, "the manifest is not JSON (line " + std::to_string(e.line()) + ": " + e.message() + ")");
  }
  auto const& manifest = info.manifest;
  auto symbolicName = manifest.get_optional<std::string>(ptree::path_type("bundle.symbolic_name", '/'));
  if (!symbolicName || symbolicName->empty()) fail(path, "the manifest has no \"bundle.symbolic_name\"");
  if (!isIdentifier(*symbolicName)) {
    fail(path, "the manifest's \"bundle.symbolic_name\" \"" + *symbolicName + "\" is not a C identifier");
  }
  info.symbolicName = *symbolicName;
  auto scheme = manifest.get_optional<std::string>(ptree::path_type("scheme", '/'));
  if (!scheme || scheme->empty()) fail(path, "the manifest has no \"scheme\"");
  try {
    info.scheme = fl::i18n::to_ustring(*scheme);
  } catch (std::exception const& e) {
    fail(path, std::string("the manifest's \"scheme\" is not UTF-8: ") + e.what());
  }
  auto const* component = firstComponent(manifest);
  if (!component) fail(path, "the manifest has no component (\"scr\"/\"components\")");
  auto implementation = component->get_optional<std::string>(ptree::path_type("implementation-class", '/'));
  if (!implementation || implementation->empty()) fail(path, "the manifest's component has no \"implementation-class\"");
  if (!isIdentifier(bundle_abi::entryPointSuffix(*implementation))) {
    fail(path, "the manifest's \"implementation-class\" \"" + *implementation + "\" is not a C++ class name");
  }
  info.implementationClass = *implementation;
  auto const interfaces = interfacesOf(*component);
  if (std::find(interfaces.begin(), interfaces.end(), bundle_abi::kFactoryInterface) == interfaces.end()) {
    fail(path, "the component " + info.implementationClass + " does not offer " + bundle_abi::kFactoryInterface +
                   " (\"service\"/\"interfaces\")");
  }

  std::lock_guard lock(mutex_);
  if (registry_.hasScheme(info.scheme)) {
    fail(path, "the scheme \"" + *scheme + "\" already has a storage provider factory");
  }

  dlerror();
  void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (!handle) {
    char const* why = dlerror();
    fail(path, std::string("not a loadable module (") + (why ? why : "dlopen failed") + ")");
  }
  auto record = std::make_unique<Record>();
  record->module = std::make_shared<Module>(handle);

  auto symbol = [&](std::string const& name) {
    dlerror();
    void* address = dlsym(handle, name.c_str());
    if (!address || dlerror() != nullptr) fail(path, "the entry point " + name + " is missing");
    return address;
  };
  auto const newName = bundle_abi::newInstanceSymbol(info.implementationClass);
  auto newInstance = reinterpret_cast<bundle_abi::NewInstanceFunction>(symbol(newName));
  record->deleteInstance =
      reinterpret_cast<bundle_abi::DeleteInstanceFunction>(symbol(bundle_abi::deleteInstanceSymbol(info.implementationClass)));
  record->setContext = reinterpret_cast<bundle_abi::SetContextFunction>(symbol(bundle_abi::setContextSymbol(info.symbolicName)));
  symbol(bundle_abi::getContextSymbol(info.symbolicName));

  info.id = nextId_++;
  record->context = std::make_unique<BundleContext>(info.id, info.symbolicName, path, info.manifest, registry_);
  record->setContext(record->context.get());

  // From here a failure must hand back the instance and clear the context.
  std::shared_ptr<ContainerProviderFactory> factory;
  try {
    try {
      record->instance = newInstance();
    } catch (std::exception const& e) {
      fail(path, newName + " failed: " + e.what());
    } catch (...) {
      fail(path, newName + " failed with an exception that is not a std::exception");
    }
    if (!record->instance) fail(path, newName + " returned no instance");
    try {
      factory = static_cast<ComponentInstance*>(record->instance)->getFactory();
    } catch (std::exception const& e) {
      fail(path, "the component " + info.implementationClass + " failed to give its factory: " + e.what());
    } catch (...) {
      fail(path, "the component " + info.implementationClass + " failed to give its factory");
    }
    if (!factory) fail(path, "the component " + info.implementationClass + " offers no factory");
    registry_.registerFactory(info.scheme, std::make_shared<ModuleFactory>(record->module, std::move(factory)));
  } catch (BundleError const&) {
    release(*record);
    throw;
  } catch (std::exception const& e) {
    release(*record);
    fail(path, e.what());
  } catch (...) {
    release(*record);
    throw;
  }

  record->info = std::move(info);
  bundles_.push_back(std::move(record));
  return bundles_.back()->info;
}

void BundleRuntime::release(Record& record) noexcept {
  try {
    if (!record.info.scheme.empty()) registry_.unregisterFactory(record.info.scheme);
  } catch (...) {
  }
  if (record.instance) {
    try {
      record.deleteInstance(record.instance);
    } catch (...) {
    }
    record.instance = nullptr;
  }
  if (record.setContext) record.setContext(nullptr);
  record.context.reset();
  record.module.reset();
}

void BundleRuntime::unload(std::u16string const& scheme) {
  std::unique_ptr<Record> record;
  {
    std::lock_guard lock(mutex_);
    auto const wanted = asciiLower(scheme);
    auto it = std::find_if(bundles_.begin(), bundles_.end(),
                           [&](auto const& r) { return asciiLower(r->info.scheme) == wanted; });
    if (it == bundles_.end()) {
      std::string name;
      for (auto c : scheme) name += (c >= 0x20 && c < 0x7F) ? static_cast<char>(c) : '?';
      throw BundleError("Cannot unload bundle: no loaded bundle serves the scheme \"" + name + "\"", {});
    }
    record = std::move(*it);
    bundles_.erase(it);
    release(*record);
  }
}

void BundleRuntime::unload(LoadedBundle const& bundle) {
  std::lock_guard lock(mutex_);
  auto it = std::find_if(bundles_.begin(), bundles_.end(), [&](auto const& r) { return &r->info == &bundle; });
  if (it == bundles_.end()) {
    throw BundleError("Cannot unload bundle " + quoted(bundle.modulePath) + ": it is not loaded by this runtime",
                      bundle.modulePath);
  }
  auto record = std::move(*it);
  bundles_.erase(it);
  release(*record);
}

std::vector<LoadedBundle> BundleRuntime::bundles() const {
  std::lock_guard lock(mutex_);
  std::vector<LoadedBundle> out;
  for (auto const& record : bundles_) out.push_back(record->info);
  return out;
}

}  // namespace foundation::storage::provider
