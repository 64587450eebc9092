#pragma once

#include <gio/gio.h>

#include <memory>

/// What all users of the device's bus share.
namespace kbus {

struct Unref {
  void operator()(gpointer object) const { g_object_unref(object); }
};
template <typename Object>
using Owned = std::unique_ptr<Object, Unref>;

/// The time limit of every call.
inline constexpr int callTimeoutMilliseconds = 10000;

/// Connects to the device's bus. Null with `error` set when there is none or `cancellable`, which may be
/// null, is cancelled meanwhile.
[[nodiscard]] Owned<GDBusConnection> connect(GCancellable* cancellable, GError** error);

/// Claims a name; false with `error` set.
[[nodiscard]] bool claimName(GDBusConnection* bus, const char* name, GBusNameOwnerFlags flags,
                             GError** error);

}  // namespace kbus
