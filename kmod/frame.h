/* SPDX-License-Identifier: GPL-2.0 OR MIT */
/*
 * Writes messages of the trace format (docs/trace-format.md). A frame is its record's length, four
 * bytes, its type and core, and messages; this writes into a buffer that holds one frame.
 */
#ifndef VESTRA_FRAME_H
#define VESTRA_FRAME_H

#include "plain.h"

#define VESTRA_CORES 4
#define VESTRA_BLOCK_MAX 131072 /* bytes that one read gets at most */
#define VESTRA_LENGTH_FIELD 4	/* bytes before a frame */
#define VESTRA_FRAME_HEADER 2	/* type, core */
#define VESTRA_SWITCH_FRAME 7	/* frame types */
#define VESTRA_MEMINFO_FRAME 8

/* A frame is closed when it has grown to this, so that a reader with a small buffer gets it, too. */
#define VESTRA_FRAME_FULL 2048
#define VESTRA_TEXT_MAX 16 /* bytes of a name */
/* The longest message: 12 or 18 elements, 20 core counters, a name. */
#define VESTRA_MESSAGE_MAX 400
#define VESTRA_FRAME_BUFFER (VESTRA_FRAME_FULL + VESTRA_MESSAGE_MAX)

/* Counters since the machine was started, 250 a second on each core. */
struct vestra_core {
	u64 user;
	u64 system;
	u64 idle;
	int temperature; /* degrees Celsius */
	u64 iowait;
};

/* What all switch messages of a sample have in common. */
struct vestra_machine {
	u64 time;     /* ns, monotonic */
	u64 switches; /* context switches a second */
	u64 running;  /* threads that run or are ready to */
	struct vestra_core cores[VESTRA_CORES];
};

/* A process. Memory and disk figures are in KiB, times in ticks of 1/250 s. */
struct vestra_process {
	u32 parent;
	u32 pid;
	char name[VESTRA_TEXT_MAX]; /* terminated; any other bytes. None is sent as "?" */
	u64 disk_read;
	u64 disk_written;
	u64 user;
	u64 system;
	u64 rss;
	u64 swap; /* sent as 1 where it is 0 and rss is not: readers list no process without */
};

/* Memory figures are in KiB. */
struct vestra_memory {
	u64 processes;
	u64 load_tenths; /* load average over one minute, x 10 */
	u64 total, swap_total, dirty, free, buffers, shared, cached, available, swap_used;
};

struct vestra_frame {
	size_t size; /* bytes in use; 0: no frame was begun */
	u8 bytes[VESTRA_FRAME_BUFFER];
};

void vestra_frame_begin(struct vestra_frame *frame, u8 type, u8 core);

/* Both need a frame that was begun and is not full. */
void vestra_frame_add_process(struct vestra_frame *frame, const struct vestra_machine *machine,
			      const struct vestra_process *process);
void vestra_frame_add_memory(struct vestra_frame *frame, const struct vestra_machine *machine,
			     const struct vestra_memory *memory);

/* True when the frame takes no further message. */
static inline bool vestra_frame_full(const struct vestra_frame *frame)
{
	return frame->size > VESTRA_FRAME_FULL;
}

/* Bytes of the record at `bytes`, its length included. */
static inline u32 vestra_record_size(const u8 *bytes)
{
	return VESTRA_LENGTH_FIELD +
	       (bytes[0] | (u32)bytes[1] << 8 | (u32)bytes[2] << 16 | (u32)bytes[3] << 24);
}

#endif
