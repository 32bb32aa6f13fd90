// SPDX-License-Identifier: Apache-2.0
/*
 * Asks the driver at /dev/qvr_korva for its version and prints the request
 * code, the answer and the errno: the configurator logs only "Error -1
 * querying driver for version number", this says why. Built for the word
 * size of the program in question (a 32-bit build on a 64-bit kernel goes
 * through the driver's compat_ioctl).
 */
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "qvr_korva.h"

int main(void)
{
	struct {
		struct qvr_korva_param_desc desc;
		char reply[64];
	} query = { { QVR_KORVA_PARAM_DSP_VERSION, sizeof(query.reply), -1, 0 }, { 0 } };
	int fd = open("/dev/" QVR_KORVA_NODE_NAME, O_RDWR);

	if (fd < 0) {
		printf("open: errno %d (%s)\n", errno, strerror(errno));
		return 1;
	}
	int answer = ioctl(fd, QVR_KORVA_IOCTL_GET_PARAM, &query);
	int error = answer < 0 ? errno : 0;
	printf("GET_PARAM 0x%08X (%zu-bit): %d, errno %d (%s), version '%.64s'\n",
	       (unsigned int)QVR_KORVA_IOCTL_GET_PARAM, sizeof(void *) * 8, answer, error,
	       error ? strerror(error) : "none", answer < 0 ? "" : query.reply);
	close(fd);
	return answer < 0;
}
