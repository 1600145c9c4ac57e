/* lb-remove: asks v4l2loopback's control node to remove loopback device N, as
 * "v4l2loopback-ctl delete" does. 0.13 and 0.14 know only the legacy request number, 0.15
 * keeps it beside its _IOW('~', 2, __u32); the legacy one is tried first. Prints the outcome; exit 0 when removed. */
#include <errno.h>
#include <fcntl.h>
#include <linux/types.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <unistd.h>

#define CTL_REMOVE_LEGACY 0x4C81
#define CTL_REMOVE_015 _IOW('~', 2, __u32)

int main(int argc, char **argv)
{
    if (argc != 2) {
        fprintf(stderr, "usage: %s DEVICE-NUMBER\n", argv[0]);
        return 2;
    }
    int nr = atoi(argv[1]);
    int fd = open("/dev/v4l2loopback", O_RDWR);
    if (fd < 0) {
        printf("open /dev/v4l2loopback: %s\n", strerror(errno));
        return 1;
    }
    int r = ioctl(fd, CTL_REMOVE_LEGACY, nr);
    if (r < 0 && (errno == ENOTTY || errno == ENOSYS || errno == EINVAL))
        r = ioctl(fd, CTL_REMOVE_015, nr);
    if (r < 0) {
        printf("remove /dev/video%d: %s\n", nr, strerror(errno));
        return 1;
    }
    printf("removed /dev/video%d\n", nr);
    return 0;
}
