/* vistrel-ctl: sends one command line to Vistrel's control socket and prints the answer.
 * Usage: vistrel-ctl <socket path> <command words...>   exit 0 when the answer starts with "ok". */
#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

int main(int argc, char **argv)
{
    if (argc < 3) {
        fprintf(stderr, "usage: %s SOCKET COMMAND...\n", argv[0]);
        return 2;
    }
    char line[4096] = "";
    for (int i = 2; i < argc; i++) {
        if (strlen(line) + strlen(argv[i]) + 2 >= sizeof line) {
            fprintf(stderr, "command too long\n");
            return 2;
        }
        if (i > 2)
            strcat(line, " ");
        strcat(line, argv[i]);
    }
    strcat(line, "\n");
    struct sockaddr_un addr = {.sun_family = AF_UNIX};
    if (strlen(argv[1]) >= sizeof addr.sun_path) {
        fprintf(stderr, "socket path too long\n");
        return 2;
    }
    strcpy(addr.sun_path, argv[1]);
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    if (fd < 0 || connect(fd, (struct sockaddr *)&addr, sizeof addr) < 0) {
        fprintf(stderr, "connect %s: %s\n", argv[1], strerror(errno));
        return 3;
    }
    struct timeval tv = {.tv_sec = 5};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    if (write(fd, line, strlen(line)) < 0) {
        perror("write");
        return 3;
    }
    char answer[8192];
    size_t n = 0;
    while (n < sizeof answer - 1) {
        ssize_t r = read(fd, answer + n, 1);
        if (r <= 0)
            break;
        if (answer[n++] == '\n')
            break;
    }
    answer[n] = 0;
    close(fd);
    if (n == 0) {
        fprintf(stderr, "no answer\n");
        return 3;
    }
    fputs(answer, stdout);
    return strncmp(answer, "ok", 2) == 0 ? 0 : 1;
}
