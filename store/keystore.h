// The protected store: a device's identity, paired clients, pairing password, relay servers and settings, each one
// small file that is replaced whole or not at all. It works in one of two scopes, fixed once per process:
//
//   Machine  the service and its worker. The files lie below ProgramData in a directory for SYSTEM and Administrators
//            alone. Any sign of damage or tampering fails the store for the rest of the process: the first cause stays
//            on record, every later write refuses, and a load that meets it throws std::runtime_error.
//   User     a program of one user, and what holds before configureHostStore. The files lie in that user's roaming
//            profile. Damage is logged and the program goes on with less; the store never fails, nothing throws but
//            for memory.
//
// Call configureHostStore first, before other threads exist; from then on any thread may call anything. Two writers
// of one item don't mix: the last one to finish wins. Secrets that a call hands out are the caller's to wipe.
#ifndef KEYSTORE_H
#define KEYSTORE_H

#include <cstddef>
#include <string>

#include <tarnglider/conn_lists.h>
#include <tarnglider/conn_relay.h>
#include <tarnglider/secure.h>

namespace keystore {

enum class HostStoreScope { User = 0, Machine = 1 };

// ---- The store as a whole

// Fixes the scope. For User that is all. For Machine it makes the directory if it is missing, demands that it and every
// entry in it is protected, and loads each item once, which on the first start of all makes the identity. Answers
// whether the store may be used; if not, *error says why, unless error is null. Never throws. A second call with the
// same scope answers for the first one's outcome without touching the disk; one with the other scope is refused and
// changes nothing.
bool configureHostStore(HostStoreScope scope, std::string *error);

// Whether the platform's data protection seals and unseals in this scope. Touches no file.
bool verifyHostProtection();

// Records that the machine store can't be trusted any more. Only the first message is kept. Does nothing in the
// User scope.
void failHostStore(const std::string &message);

// False once the store has failed; *reason is then the first failure's message, unless reason is null.
bool hostStoreHealthy(std::string *reason = nullptr);

HostStoreScope hostStoreScope();

// The store's directory, without a backslash behind it; made by nobody here. Empty in the User scope if the profile
// can't be found, and in the Machine scope until configureHostStore has found it.
std::wstring hostStoreDirectory();

// ---- Plain files

// Replaces a file of the store by size bytes of data, for those who own the directory alone. The name is a plain one:
// null, an empty one, or one with a backslash, slash, dot or colon is refused without further consequence. Any other
// failure leaves the old file whole, answers false and, in the Machine scope, fails the store.
bool writeHostFile(const wchar_t *name, const void *data, size_t size);

// Reads a file of the store, which is smaller than 1 MiB. False, with out as it was, for a name that is null, empty or
// has a colon, and for a missing file, which is no fault. One that exists and can't be read, or isn't protected, throws
// in the Machine scope and is false in the User scope.
bool readHostFile(const wchar_t *name, std::string &out);

// ---- Items. A load in the Machine scope throws std::runtime_error when the item exists and is damaged or can't be
// read, and the store has then failed. A save that fails leaves the old item whole, writes one line to the log, and
// fails the store in the Machine scope.

// This device's key pair, made and saved if there is none; *created, unless created is null, says whether it was. The
// machine's identity is never replaced, since every paired client depends on it; a user's damaged one is kept as
// "identity.bad" while a new one takes its place. If a user's new one can't be saved, it lasts as long as the process.
// The caller wipes the result.
tarn_keypair load_or_create_identity(bool *created);

// The clients that may connect; empty if nothing is stored.
tarn_client_list load_clients();
bool save_clients(const tarn_client_list &clients);

// The line that tarn_host_set_password makes, from which the password's verifier is read again; empty if there is
// none. In the Machine scope it is checked field by field. The caller wipes it.
std::string load_password_blob();

// An empty line isn't stored but deletes the item, with delete_password_blob's consequences; the answer is then whether
// it is gone.
bool save_password_blob(const std::string &line);

// Deletes the item; there may be none. In the Machine scope one that isn't protected is left in place, and that or a
// deletion that fails is a failure of the store.
void delete_password_blob();

// The relay servers in order of preference: the built-in one if nothing was ever stored, none if an empty list was, or
// if a user's list is damaged. The caller wipes the result, which holds keys.
tarn_relay_config load_relays();
bool save_relays(const tarn_relay_config &relays);

} // namespace keystore

// The directory of the store's files, as hostStoreDirectory gives it. In the User scope it is made if it is missing, and
// lies in the current directory if the profile can't be found.
std::wstring app_data_dir();

#endif
