#pragma once

// Control interface of the stand-in libsolclient.so: the functions a test
// uses to shape the emulated brokers and to inject faults. They are exported
// next to the vendor functions with their own prefix so that they can never
// be mistaken for vendor API. Everything here is also reachable without C
// calls through environment variables read by solClient_initialize (see
// docs/emulator.md).
//
// All functions are thread-safe. Names of vendor functions are given in full
// ("solClient_session_sendMsg"). "hostPort" is the "host:port" part of a
// SESSION_HOST value (without the "tcp:"/"tcps:" scheme).

#include <cstddef>

extern "C" {

// Forget every broker, queue, fault and recorded property list; sessions that
// are still alive keep working against fresh brokers. The live-message count
// is not reset (it counts objects, not history).
void solEmu_reset(void);

// ---- Brokers -------------------------------------------------------------------
// Take a broker down (0) or bring it back (1). Down: live sessions lose their
// connection (RECONNECTING_NOTICE, then retries every RECONNECT_RETRY_WAIT_MS)
// and new connects are retried as CONNECT_RETRIES / CONNECT_TIMEOUT_MS say.
// Up: reconnecting sessions get RECONNECTED_NOTICE on their next retry.
void solEmu_setBrokerUp(char const* hostPort, int up);

// Refuse logins of this user name on every broker (CONNECT_FAILED_ERROR with
// sub-code LOGIN_FAILURE). NULL clears the list.
void solEmu_refuseUser(char const* user);

// The broker ends every session connected (or reconnecting) to it outright:
// each gets DOWN_ERROR (no reconnecting), its flows SESSION_DOWN, and calls
// blocked on it return FAIL. The broker stays up; a new connect succeeds.
void solEmu_endSessions(char const* hostPort);

// The emulated network round trip in microseconds (0, the default: instant).
// Every answer (connect result, confirmation, acknowledgement, bind result)
// and every delivery reaches the context thread that much later, in order.
// Also set by SOLCLIENT_EMULATOR_ROUND_TRIP_US at the first initialize.
void solEmu_setRoundTrip(unsigned us);

// ---- Queues --------------------------------------------------------------------
// Queues exist on every broker of the process, present and future.
int solEmu_addQueue(char const* name);     // 0 on success, -1 if it exists
int solEmu_removeQueue(char const* name);  // 0 on success, -1 if unknown
// Messages held by the queue and not yet acknowledged (delivered or not),
// summed over all brokers; -1 for an unknown queue.
long solEmu_queueDepth(char const* name);

// ---- Faults --------------------------------------------------------------------
// Make the next `count` calls of the named vendor function fail: they return
// `returnCode` and set the thread's last error to `subCode` and `text`.
// count 0 removes the fault. Returns 0, or -1 for an unknown function name.
int solEmu_failNext(char const* function, int count, int returnCode, int subCode, char const* text);

// Refuse subscribe and unsubscribe requests for `topic` (exact subscription
// text; NULL: every topic) with FAIL and the given sub-code (23, 24, 68, ...).
// subCode 0 removes the rule.
void solEmu_refuseSubscriptions(char const* topic, int subCode);

// What the broker answers to guaranteed messages:
// 0 acknowledge (default), 1 reject (REJECTED_MSG_ERROR), 2 withhold (no answer
// until the mode changes back or a reconnect retransmits them).
void solEmu_setAckMode(int mode);

// What an explicit solClient_session_disconnect does to a session's topic
// subscriptions: dropped (0, the default), or kept and applied again by its
// next connect (1, with REAPPLY_SUBSCRIPTIONS "1"), as a library that
// re-applies them after any new connection would. Flows go either way.
void solEmu_setReapplyAfterDisconnect(int on);

// Hold deliveries on every context thread (1) or release them (0). Held
// deliveries are dispatched in order on release, to the callbacks that were
// current when they were queued: this reproduces messages "in flight" across
// an unsubscribe or a flow stop.
void solEmu_holdDeliveries(int hold);

// ---- Inspection ------------------------------------------------------------------
// Message objects currently alive: those the application allocated and not
// freed plus those the library holds (queued, spooled, in flight).
long solEmu_liveMessages(void);

// The property list given to the last successful or failed solClient_session_create,
// as names and values separated by '\n' (name, value, name, value, ...).
// Copies at most size-1 bytes and a terminator; returns the full length.
size_t solEmu_lastSessionProperties(char* buffer, size_t size);

// Same for the last solClient_session_createFlow.
size_t solEmu_lastFlowProperties(char* buffer, size_t size);

// Number of sessions alive (created and not destroyed).
long solEmu_liveSessions(void);

// Vendor calls blocked in the library right now (connects, confirmations,
// binds, sends waiting for a reconnect or for room in the publish window).
long solEmu_blockedCalls(void);
// Sends that have had to wait for room in a full publish window, in total.
long solEmu_windowWaits(void);
// Guaranteed sends whose attachment (lent through setBinaryAttachmentPtr) no longer held the bytes
// sent when their answer reached the application, in total: each is also told on stderr.
long solEmu_changedAttachments(void);

// ---- Additions ---------------------------------------------------------------------
// The redelivered flag of a received guaranteed message (the vendor reads it
// with a function outside the 30 this project uses): 1 redelivered, 0 not,
// -1 for an invalid message handle.
int solEmu_msgIsRedelivered(void* msg);

}  // extern "C"
