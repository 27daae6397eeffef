// SPDX-License-Identifier: GPL-2.0 OR MIT
/* Parses what is written into the control node. Any bytes may come. */
#include "command.h"

/* A view of bytes that are not terminated. */
struct text {
	const char *at;
	size_t size;
};

static const int integer_length = 4;

/* A whole text as a decimal number. */
static bool to_number(struct text text, int *number)
{
	const bool negative = text.size > 0 && text.at[0] == '-';
	const s64 limit = negative ? 2147483648LL : 2147483647LL;
	s64 value = 0;
	size_t i;

	if (text.size == (size_t)negative || (text.at[negative] == '0' && text.size > 1))
		return false;
	for (i = negative; i < text.size; i++) {
		if (text.at[i] < '0' || text.at[i] > '9')
			return false;
		value = value * 10 + (text.at[i] - '0');
		if (value > limit)
			return false;
	}
	*number = (int)(negative ? -value : value);
	return true;
}

/* Moves the text up to the next separator, and that, out of *rest. False if there is none. */
static bool take_field(struct text *rest, char separator, struct text *field)
{
	const char *end = memchr(rest->at, separator, rest->size);

	if (!end)
		return false;
	field->at = rest->at;
	field->size = end - rest->at;
	rest->at += field->size + 1;
	rest->size -= field->size + 1;
	return true;
}

static bool parse_pids(struct text payload, struct vestra_command *command)
{
	int i;

	for (i = 0; i < VESTRA_FILTERS; i++) {
		struct text field = payload;
		int pid;

		if (i + 1 < VESTRA_FILTERS && !take_field(&payload, '|', &field))
			return false;
		if (!to_number(field, &pid) || pid < 0)
			return false;
		if (pid > 0)
			command->pids[command->count++] = pid;
	}
	return true;
}

static bool parse_name(struct text payload, struct vestra_command *command)
{
	size_t i;

	for (i = 0; i < payload.size; i++) {
		const unsigned char byte = payload.at[i];

		if (byte < 0x20 || byte == 0x7f)
			return false;
	}
	memcpy(command->name, payload.at,
	       payload.size < VESTRA_NAME_MAX ? payload.size : VESTRA_NAME_MAX);
	return payload.size > 0;
}

static bool parse_payload(struct text payload, int length, struct vestra_command *command)
{
	if (command->kind <= VESTRA_WRITES_OFF) {
		if (length != integer_length || !to_number(payload, &command->value))
			return false;
		return command->kind == VESTRA_TEMPERATURE || command->value == (int)command->kind;
	}
	if (length < 0 || (size_t)length != payload.size)
		return false;
	if (command->kind == VESTRA_PIDS)
		return parse_pids(payload, command);
	return parse_name(payload, command);
}

bool vestra_parse_command(const char *text, size_t size, struct vestra_command *command)
{
	struct text rest = {text, size}, number_field, length_field;
	int number, length;

	memset(command, 0, sizeof(*command));
	if ((size == 1 || (size == 2 && text[1] == '\n')) && (text[0] == '0' || text[0] == '1')) {
		command->kind = VESTRA_TRACING;
		command->value = text[0] - '0';
		return true;
	}
	if (size > VESTRA_COMMAND_MAX || size < 2 || memcmp(text, "c-", 2) != 0)
		return false;
	rest.at += 2;
	rest.size -= 2;
	if (!take_field(&rest, '-', &number_field) || !take_field(&rest, '-', &length_field))
		return false;
	if (!to_number(number_field, &number) || !to_number(length_field, &length))
		return false;
	if (number < VESTRA_TEMPERATURE || number > VESTRA_NAME)
		return false;
	command->kind = number;
	return parse_payload(rest, length, command);
}

static void add_name(struct vestra_filter *filter, const char *name)
{
	int kept = 0;
	int i;

	/* The name moves to the end; without room, the oldest goes. */
	for (i = 0; i < filter->name_count; i++) {
		if (strcmp(filter->names[i], name) == 0)
			continue;
		memmove(filter->names[kept++], filter->names[i], sizeof(filter->names[i]));
	}
	if (kept == VESTRA_FILTERS) {
		kept--;
		memmove(filter->names, filter->names + 1, kept * sizeof(filter->names[0]));
	}
	memcpy(filter->names[kept], name, sizeof(filter->names[kept]));
	filter->name_count = kept + 1;
}

void vestra_filter_apply(struct vestra_filter *filter, const struct vestra_command *command)
{
	if (command->kind == VESTRA_NAME) {
		add_name(filter, command->name);
	} else if (command->kind == VESTRA_PIDS) {
		memcpy(filter->pids, command->pids, sizeof(filter->pids));
		filter->pid_count = command->count;
	}
}

bool vestra_filter_reports(const struct vestra_filter *filter, int pid, const char *name)
{
	int i;

	if (filter->pid_count == 0 && filter->name_count == 0)
		return true;
	for (i = 0; i < filter->pid_count; i++)
		if (filter->pids[i] == pid)
			return true;
	for (i = 0; i < filter->name_count; i++)
		if (strcmp(filter->names[i], name) == 0)
			return true;
	return false;
}
