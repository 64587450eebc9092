#pragma once

/// How the transfer service and its client library talk to each other.
///
/// A client numbers its own transfers. It alone gets `Progress` signals, until it calls `Finish` or leaves
/// the bus. `Finish` is answered when nothing works on the transfer any more. Addresses and paths are bytes,
/// which need not be UTF-8.
///
/// While the property `deferred` is not 0, all transfers are put off with that deferred code; after that
/// they begin again.
namespace xfr::service {

inline constexpr const char* name = "com.qorvex.transfer";  // of its interface as well

inline constexpr const char* description =
    "<node><interface name='com.qorvex.transfer'>"
    "<method name='Initiate'>"
    "<arg name='id' type='i'/><arg name='address' type='ay'/><arg name='destination' type='ay'/>"
    "</method>"
    "<method name='Finish'><arg name='id' type='i'/></method>"
    "<property name='deferred' type='i' access='write'/>"
    "<signal name='Progress'>"
    "<arg name='id' type='i'/><arg name='state' type='i'/><arg name='error_code' type='i'/>"
    "<arg name='deferred_code' type='i'/>"
    "</signal>"
    "</interface></node>";

}  // namespace xfr::service
