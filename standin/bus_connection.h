#pragma once

#include <gio/gio.h>

#include <memory>
#include <string>

/// What the daemon's side of the bus and the bus's tools share.
namespace kbus {

struct Unref {
  void operator()(gpointer object) const { g_object_unref(object); }
};
struct FreeError {
  void operator()(GError* error) const { g_error_free(error); }
};
struct UnrefVariant {
  void operator()(GVariant* variant) const { g_variant_unref(variant); }
};

using Connection = std::unique_ptr<GDBusConnection, Unref>;
using Error = std::unique_ptr<GError, FreeError>;
using Variant = std::unique_ptr<GVariant, UnrefVariant>;

/// Connects to the device's bus; null with `error` set when there is none. The process's SIGPIPE
/// action stays as it is.
[[nodiscard]] Connection connect(Error& error);

/// Whether a name goes over to a later claimant that shares it too, and comes back when that is gone.
enum class Sharing { none, withLaterClaimants };

/// Claims a name. False, with `error` set unless another owns it.
[[nodiscard]] bool claimName(GDBusConnection* connection, const char* name, Sharing sharing, Error& error);

/// Waits until the bus has got all that was sent before. False, with `error` set, when it does not.
[[nodiscard]] bool arrived(GDBusConnection* connection, Error& error);

/// Where GLib gives up for want of memory, threads or descriptors, the process says so and ends with
/// status 1, as programs do when anything else fails, instead of by a signal.
void endWithStatusOneOnFatalErrors();

/// The path of the object that a dotted name stands for: "/com/qorvex" for "com.qorvex".
[[nodiscard]] std::string objectPath(const std::string& dottedName);

}  // namespace kbus
