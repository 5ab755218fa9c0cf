// libmosquitto, loaded when the first connection is made.
//
// It brings the TLS libraries along, which are half of what the loader does at a start and a quarter of an idle
// process. A machine that is not managed does not need them, nor does a verb that asks no broker.
#pragma once

#include <mosquitto.h>

namespace HVBEnterprise::agent {

// Every call of mosquitto.h that is made.
#define SENTREL_MOSQUITTO_CALLS(CALL)                                                                                  \
    CALL(mosquitto_lib_init)                                                                                           \
    CALL(mosquitto_new)                                                                                                \
    CALL(mosquitto_destroy)                                                                                            \
    CALL(mosquitto_int_option)                                                                                         \
    CALL(mosquitto_will_set)                                                                                           \
    CALL(mosquitto_username_pw_set)                                                                                    \
    CALL(mosquitto_tls_set)                                                                                            \
    CALL(mosquitto_tls_opts_set)                                                                                       \
    CALL(mosquitto_connect_v5_callback_set)                                                                            \
    CALL(mosquitto_message_callback_set)                                                                               \
    CALL(mosquitto_publish_v5_callback_set)                                                                            \
    CALL(mosquitto_subscribe_callback_set)                                                                             \
    CALL(mosquitto_log_callback_set)                                                                                   \
    CALL(mosquitto_connect_async)                                                                                      \
    CALL(mosquitto_disconnect)                                                                                         \
    CALL(mosquitto_socket)                                                                                             \
    CALL(mosquitto_want_write)                                                                                         \
    CALL(mosquitto_loop_read)                                                                                          \
    CALL(mosquitto_loop_write)                                                                                         \
    CALL(mosquitto_loop_misc)                                                                                          \
    CALL(mosquitto_subscribe)                                                                                          \
    CALL(mosquitto_publish)                                                                                            \
    CALL(mosquitto_strerror)                                                                                           \
    CALL(mosquitto_connack_string)                                                                                     \
    CALL(mosquitto_reason_string)

/// The library's calls under their own names. Once loaded and set up it stays, as other users of it may be in the
/// process. Threads: any, it never changes. Owner: the process.
struct Mosquitto {
#define SENTREL_MOSQUITTO_MEMBER(name) decltype(&::name) name; // NOLINT(bugprone-macro-parentheses): a declaration
    SENTREL_MOSQUITTO_CALLS(SENTREL_MOSQUITTO_MEMBER)
#undef SENTREL_MOSQUITTO_MEMBER
};

/// Loads libmosquitto.so.1 at the first call. @throws MqttFailure when it cannot be loaded or used; a later call tries
/// again.
const Mosquitto& mosquittoLibrary();

} // namespace HVBEnterprise::agent
