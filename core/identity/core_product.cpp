#include "core/identity/core_product.h"

#include <utility>

namespace NS_CORE {
namespace {

std::string& storedIdentifier() {
    // Never destroyed: exit handlers may still ask.
    static std::string& identifier = *new std::string;
    return identifier;
}

} // namespace

void setProductIdentifier(std::string identifier) {
    storedIdentifier() = std::move(identifier);
}

const std::string& productIdentifier() {
    return storedIdentifier();
}

} // namespace NS_CORE
