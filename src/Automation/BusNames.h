#pragma once

#include <QLatin1StringView>

// Where Quillvane is found on the session bus (its service name is the
// application id, BuildInfo::AppId), and the errors it answers with. The
// forwarder (quillvane-open.c) is plain C and spells the path and interface out.
namespace BusNames {

inline constexpr QLatin1StringView ObjectPath{"/work/vorpa/Quillvane"};
inline constexpr QLatin1StringView ApplicationInterface{"org.freedesktop.Application"};
// Also in AutomationAdaptor's Q_CLASSINFO, which takes only a literal.
inline constexpr QLatin1StringView AutomationInterface{"work.vorpa.Quillvane.Automation"};

namespace Error {
inline constexpr QLatin1StringView ValidationFailed{"work.vorpa.Quillvane.Error.ValidationFailed"};
inline constexpr QLatin1StringView AppNotReady{"work.vorpa.Quillvane.Error.AppNotReady"};
inline constexpr QLatin1StringView Refused{"work.vorpa.Quillvane.Error.Refused"};
inline constexpr QLatin1StringView LaunchFailed{"work.vorpa.Quillvane.Error.LaunchFailed"};
inline constexpr QLatin1StringView Failed{"work.vorpa.Quillvane.Error.Failed"};
inline constexpr QLatin1StringView TooManyLinks{"work.vorpa.Quillvane.Error.TooManyLinks"};
inline constexpr QLatin1StringView InvalidLink{"work.vorpa.Quillvane.Error.InvalidLink"};
} // namespace Error

} // namespace BusNames
