// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
/*
 * insmod FILE [PARAMETER...] that tries once. Busybox's tries again when a load is refused, and so
 * hides that it was.
 */
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

int main(int count, char **words)
{
	int file = count > 1 ? open(words[1], O_RDONLY | O_CLOEXEC) : -1;
	char parameters[1024] = "";
	int i;

	for (i = 2; i < count; i++) {
		strncat(parameters, words[i], sizeof(parameters) - strlen(parameters) - 1);
		strncat(parameters, " ", sizeof(parameters) - strlen(parameters) - 1);
	}
	if (file >= 0 && !syscall(SYS_finit_module, file, parameters, 0))
		return 0;
	perror(count > 1 ? words[1] : "insmod");
	return 1;
}
