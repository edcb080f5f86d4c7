#include "platform/RemovalRefusal.h"

#include <string>

namespace platform {

namespace {

class RemovalRefusalCategory final : public std::error_category {
public:
    const char* name() const noexcept override { return "removal refusal"; }

    std::string message(int value) const override
    {
        switch (static_cast<RemovalRefusal>(value)) {
        case RemovalRefusal::SystemFolder: return "a protected system folder";
        case RemovalRefusal::HomeFolder: return "a home folder";
        case RemovalRefusal::HomeStandardFolder: return "a standard folder of the home folder";
        case RemovalRefusal::RunningBundle: return "the running program's bundle";
        case RemovalRefusal::MountPoint: return "a mount point";
        case RemovalRefusal::UnknownMount: return "a mount the system cannot identify";
        }
        return "refused";
    }

    std::error_condition default_error_condition(int value) const noexcept override
    {
        switch (static_cast<RemovalRefusal>(value)) {
        case RemovalRefusal::MountPoint:
        case RemovalRefusal::UnknownMount: return std::errc::device_or_resource_busy;
        default: return std::errc::operation_not_permitted;
        }
    }
};

}  // namespace

const std::error_category& removalRefusalCategory() noexcept
{
    static const RemovalRefusalCategory category;
    return category;
}

std::error_code make_error_code(RemovalRefusal refusal) noexcept
{
    return {static_cast<int>(refusal), removalRefusalCategory()};
}

}  // namespace platform
