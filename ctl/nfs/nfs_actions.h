// Internal to the nfs command: its three actions. Each returns only on
// success and ends the tool with status 122 otherwise; each blocks the
// calling thread while its shell commands run.
#pragma once

// Mounts the export at $root_dir/storage unless something is mounted there,
// checks the mount and creates and removes a test archive on it.
void nfs_mount(void);
// Unmounts $root_dir/storage when it is in the mount table.
void umount(void);
// Checks the mount and prints the volume's space usage on standard output.
void nfs_df(void);

// Checks the three values against the alphabet, then that the mount point
// occurs on exactly one mount table line and that a line holds the expected
// server, export and file system type.
void check_mount(const char *host, const char *export_path, const char *root_dir);
