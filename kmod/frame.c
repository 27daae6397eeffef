// SPDX-License-Identifier: GPL-2.0 OR MIT
/* The only writer of trace frames in the module. */
#include "frame.h"

#ifdef __KERNEL__
#include <linux/math64.h>
#else
static u64 div64_u64(u64 number, u64 divisor)
{
	return number / divisor;
}
#endif

static void set_length(struct vestra_frame *frame)
{
	const u32 length = frame->size - VESTRA_LENGTH_FIELD;
	int i;

	for (i = 0; i < VESTRA_LENGTH_FIELD; i++)
		frame->bytes[i] = length >> (8 * i);
}

static void put_number(struct vestra_frame *frame, u64 number)
{
	u8 *at = frame->bytes + frame->size;

	while (number >= 0x80) {
		*at++ = number | 0x80;
		number >>= 7;
	}
	*at++ = number;
	frame->size = at - frame->bytes;
}

static void put_text(struct vestra_frame *frame, const char *text)
{
	const size_t size = strnlen(text, VESTRA_TEXT_MAX);

	put_number(frame, size);
	memcpy(frame->bytes + frame->size, text, size);
	frame->size += size;
}

/* Integer part, then one digit. */
static void put_tenths(struct vestra_frame *frame, u64 tenths)
{
	const u64 whole = div64_u64(tenths, 10);

	put_number(frame, whole);
	put_number(frame, tenths - 10 * whole);
}

/* A share of `whole`, as percent. */
static void put_share(struct vestra_frame *frame, u64 part, u64 whole)
{
	put_tenths(frame, whole == 0 ? 0 : div64_u64((part < whole ? part : whole) * 1000, whole));
}

void vestra_frame_begin(struct vestra_frame *frame, u8 type, u8 core)
{
	frame->bytes[VESTRA_LENGTH_FIELD] = type;
	frame->bytes[VESTRA_LENGTH_FIELD + 1] = core;
	frame->size = VESTRA_LENGTH_FIELD + VESTRA_FRAME_HEADER;
	set_length(frame);
}

void vestra_frame_add_process(struct vestra_frame *frame, const struct vestra_machine *machine,
			      const struct vestra_process *process)
{
	int i;

	put_number(frame, 1); /* message type */
	put_number(frame, machine->time);
	put_number(frame, process->parent);
	put_number(frame, process->pid);
	put_text(frame, process->name[0] ? process->name : "?");
	put_number(frame, process->disk_read);
	put_number(frame, process->disk_written);
	put_number(frame, process->user);
	put_number(frame, process->system);
	put_number(frame, process->rss);
	put_number(frame, process->rss && !process->swap ? 1 : process->swap);
	put_number(frame, machine->switches);
	put_number(frame, machine->running);
	for (i = 0; i < VESTRA_CORES; i++) {
		const struct vestra_core *core = &machine->cores[i];

		put_number(frame, core->user);
		put_number(frame, core->system);
		put_number(frame, core->idle);
		put_number(frame, (u64)(s64)core->temperature);
		put_number(frame, core->iowait);
	}
	set_length(frame);
}

void vestra_frame_add_memory(struct vestra_frame *frame, const struct vestra_machine *machine,
			     const struct vestra_memory *memory)
{
	const u64 used = memory->total > memory->available ? memory->total - memory->available : 0;

	put_number(frame, 1); /* message type */
	put_number(frame, machine->time);
	put_number(frame, memory->processes);
	put_number(frame, machine->running);
	put_text(frame, "meminfo");
	put_share(frame, used, memory->total);
	put_share(frame, memory->swap_used, memory->swap_total);
	put_tenths(frame, memory->load_tenths);
	put_number(frame, memory->total);
	put_number(frame, memory->swap_total);
	put_number(frame, memory->dirty);
	put_number(frame, memory->free);
	put_number(frame, memory->buffers);
	put_number(frame, memory->shared);
	put_number(frame, memory->cached);
	put_number(frame, memory->available);
	set_length(frame);
}
