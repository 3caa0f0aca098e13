// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
/*
 * The console and the string helpers.
 */
#include <linux/ctype.h>
#include <linux/kernel.h>
#include <linux/printk.h>
#include <linux/string.h>

#include "kernel/seam/calls.h"

/* "<N>" at the start of a line is its priority. */
static bool has_priority(const char *format)
{
	return format[0] == '<' && format[1] >= '0' && format[1] <= '7' && format[2] == '>';
}

/*
 * Today's kernel wants a priority as a control character. A text without one continues the line
 * that the same context has begun; when there is none it is a new line, of the default priority.
 */
int plat_printk(const char *format, ...)
{
	char prefix[] = KERN_CONT;
	struct va_format rest;
	va_list arguments;
	int length;

	if (has_priority(format)) {
		prefix[1] = format[1];
		format += 3;
	}
	va_start(arguments, format);
	rest.fmt = format;
	rest.va = &arguments;
	length = printk("%s%pV", prefix, &rest);
	va_end(arguments);
	return length;
}

int plat_strcmp(const char *a, const char *b)
{
	return strcmp(a, b);
}

size_t plat_strlen(const char *s)
{
	return strlen(s);
}

char *plat_strsep(char **s, const char *separators)
{
	return strsep(s, separators);
}

unsigned long plat_simple_strtoul(const char *s, char **end, unsigned int base)
{
	return simple_strtoul(s, end, base);
}

int plat_isspace(unsigned char c)
{
	return isspace(c);
}

int plat_snprintf(char *buffer, size_t size, const char *format, ...)
{
	va_list arguments;
	int length;

	va_start(arguments, format);
	length = vsnprintf(buffer, size, format, arguments);
	va_end(arguments);
	return length;
}
