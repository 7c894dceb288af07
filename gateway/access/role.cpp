#include "role.h"

namespace gateway {

const char *nameOf(Role role)
{
    switch (role) {
    case Role::View:
        return "view";
    case Role::Operate:
        return "operate";
    case Role::Maintain:
        return "maintain";
    }
    return "";
}

std::optional<Role> roleOf(const std::string &name)
{
    for (const Role role : {Role::View, Role::Operate, Role::Maintain}) {
        if (name == nameOf(role))
            return role;
    }
    return std::nullopt;
}

} // namespace gateway
