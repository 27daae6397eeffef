/* SPDX-License-Identifier: GPL-2.0 OR MIT */
/*
 * Commands that the daemon writes into the control node. One write is one command.
 *
 *   0  1                      tracing off, on; a newline may follow
 *   c-NUMBER-LENGTH-PAYLOAD   at most 255 bytes, nothing after it:
 *
 *   NUMBER  LENGTH          PAYLOAD
 *   0       4               temperature in degrees Celsius, decimal, may be negative
 *   1, 2    4               the number again; 1: report disk reads, 2: do not
 *   3, 4    4               the number again; 3: report disk writes, 4: do not
 *   5       of the payload  five process ids, "%d|%d|%d|%d|%d"; 0 means none
 *   6       of the payload  one process name, without control characters
 *
 * The 4 is the size of an integer in the sender. Numbers are decimal, without sign, blank or leading
 * zero; only the temperature may have a '-'.
 */
#ifndef VESTRA_COMMAND_H
#define VESTRA_COMMAND_H

#include "plain.h"

#define VESTRA_COMMAND_MAX 255 /* bytes of a command */
#define VESTRA_NAME_MAX 15     /* bytes of a process name in the kernel */
#define VESTRA_FILTERS 5       /* names, and ids, that the filter holds */

enum vestra_command_kind {
	VESTRA_TEMPERATURE = 0, /* those below 7 are the numbers of the commands */
	VESTRA_READS_ON = 1,
	VESTRA_READS_OFF = 2,
	VESTRA_WRITES_ON = 3,
	VESTRA_WRITES_OFF = 4,
	VESTRA_PIDS = 5,
	VESTRA_NAME = 6,
	VESTRA_TRACING = 7,
};

struct vestra_command {
	enum vestra_command_kind kind;
	int value;		  /* VESTRA_TRACING: 0 or 1; VESTRA_TEMPERATURE: degrees */
	int pids[VESTRA_FILTERS]; /* VESTRA_PIDS: the first `count` */
	int count;
	char name[VESTRA_NAME_MAX + 1]; /* VESTRA_NAME: what a process can have of it, terminated */
};

/*
 * Which processes are reported: all, or, once there is a name or an id, only those that match one.
 * A command has one name and does not say whether it begins a list, so the list is the newest five
 * different names.
 */
struct vestra_filter {
	int pids[VESTRA_FILTERS];
	int pid_count;
	char names[VESTRA_FILTERS][VESTRA_NAME_MAX + 1]; /* oldest first */
	int name_count;
};

/* Parses the `size` bytes at `text`. False, with *command undefined, if they are no command. */
bool vestra_parse_command(const char *text, size_t size, struct vestra_command *command);

/* Applies a command of kind VESTRA_PIDS or VESTRA_NAME. */
void vestra_filter_apply(struct vestra_filter *filter, const struct vestra_command *command);

bool vestra_filter_reports(const struct vestra_filter *filter, int pid, const char *name);

#endif
