// The program's four switches. Each answers the program's exit code, its only report; --status alone prints, one line.
#ifndef HOST_SERVICE_SERVICE_COMMANDS_H
#define HOST_SERVICE_SERVICE_COMMANDS_H

namespace host_service {

// --install: registers the service, or updates its registration in place, and starts it.
enum install_code : int {
    install_done = 0,   // the start was accepted, or the service runs already
    install_denied = 1, // not an elevated administrator
    install_unsafe = 2, // ordinary users could change the program, its directory or a folder above
    install_no_manager = 3,
    install_failed = 4,
};
int install_service();

// --uninstall: stops the service and takes its registration away. It waits 10 seconds for the stop.
enum uninstall_code : int {
    uninstall_done = 0, // or there was no service
    uninstall_denied = 1,
    uninstall_no_manager = 2,
    uninstall_no_service = 3, // it is registered, but can't be opened
    uninstall_failed = 4,     // it didn't stop or couldn't be deleted; it stays registered
};
int uninstall_service();

// --status: prints whether the service runs, and its process id.
enum status_code : int {
    status_printed = 0,
    status_no_manager = 1,
    status_absent = 2,
    status_unknown = 3,
};
int print_status();

// --remove-data: deletes the machine store. Up to remove_tree_unsafe nothing has been deleted.
enum remove_code : int {
    remove_done = 0,   // or there was no store
    remove_denied = 1, // not an elevated administrator, or a worker runs, or that can't be told
    remove_no_manager = 2,
    remove_service_runs = 3, // or its state can't be told
    remove_service_unknown = 4,
    remove_no_folder = 5,
    remove_root_unknown = 6,
    remove_tree_unsafe = 7, // something in the store isn't as the service made it
    remove_file_failed = 8,
    remove_directory_failed = 9,
    remove_root_failed = 10,
};
int remove_data();

} // namespace host_service

#endif
