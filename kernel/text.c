// SPDX-License-Identifier: GPL-2.0
/*
 * A write to either file is one whole line, or it is refused: half a line would be a request for
 * something else. Numbers are digits only, and all of a field.
 */
#include <linux/ctype.h>
#include <linux/errno.h>
#include <linux/kernel.h>
#include <linux/string.h>

#include "tarvo.h"

int tarvo_one_line(char *bytes, size_t count)
{
	if (count == 0 || count > TARVO_LINE_BYTES)
		return -EINVAL;
	if (memchr(bytes, '\0', count) || memchr(bytes, '\n', count) != bytes + count - 1)
		return -EINVAL;
	bytes[count - 1] = '\0';
	return 0;
}

int tarvo_fields(char *line, char **fields, unsigned int count)
{
	unsigned int i;

	for (i = 0; i < count; i++) {
		fields[i] = strsep(&line, " ");
		if (!fields[i] || !*fields[i])
			return -EINVAL;
	}
	return line ? -EINVAL : 0;
}

/* kstrtoull() would accept a sign, and a prefix where the base is 16. */
static bool only_digits(const char *field, unsigned int base)
{
	for (; *field; field++) {
		if (base == 16 ? !isxdigit(*field) : !isdigit(*field))
			return false;
	}
	return true;
}

int tarvo_u64(const char *field, unsigned int base, u64 *value)
{
	return only_digits(field, base) && !kstrtou64(field, base, value) ? 0 : -EINVAL;
}

int tarvo_u32(const char *field, u32 *value)
{
	return only_digits(field, 10) && !kstrtou32(field, 10, value) ? 0 : -EINVAL;
}

int tarvo_s32(const char *field, u32 *value)
{
	s32 number;

	if (!only_digits(field + (*field == '-'), 10) || kstrtos32(field, 10, &number))
		return -EINVAL;
	*value = number;
	return 0;
}

/* The library divides lines at the blanks of ASCII; isspace() knows one more. */
bool tarvo_is_name(const char *text)
{
	const size_t length = strlen(text);

	return length > 0 && length < TARVO_NAME_BYTES && !strpbrk(text, " \t\n\v\f\r");
}
