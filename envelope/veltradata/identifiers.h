// Names of classes, properties and struct fields: narrow (UTF-8) identifiers compared by value.
#pragma once

#include <string>
#include <utility>

namespace foundation::veltradata {

class VeltraClassIdentifier {
public:
    explicit VeltraClassIdentifier(std::string name) : name_(std::move(name)) {}
    const std::string& getClassName() const { return name_; }
    bool operator==(const VeltraClassIdentifier& o) const { return name_ == o.name_; }
    bool operator!=(const VeltraClassIdentifier& o) const { return !(*this == o); }

private:
    std::string name_;
};

class VeltraPropertyIdentifier {
public:
    explicit VeltraPropertyIdentifier(std::string name) : name_(std::move(name)) {}
    const std::string& getPropertyName() const { return name_; }
    operator std::string() const { return name_; }
    bool operator==(const VeltraPropertyIdentifier& o) const { return name_ == o.name_; }
    bool operator!=(const VeltraPropertyIdentifier& o) const { return !(*this == o); }

private:
    std::string name_;
};

class VeltraFieldIdentifier {
public:
    explicit VeltraFieldIdentifier(std::string name) : name_(std::move(name)) {}
    operator std::string() const { return name_; }
    const std::string& str() const { return name_; }
    bool operator==(const VeltraFieldIdentifier& o) const { return name_ == o.name_; }
    bool operator!=(const VeltraFieldIdentifier& o) const { return !(*this == o); }

private:
    std::string name_;
};

// Struct field names: an ASCII letter, then letters, digits or underscores, at most this long.
inline constexpr std::size_t kMaxFieldNameLength = 63;
bool isValidFieldName(const std::string& name);

}  // namespace foundation::veltradata
