/* What a list command costs at least: connect, send the eight bytes of the request, receive the
   reply in one buffer, write its payload as it is. minimal_command_client PATH */

#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

static int receive(int sock, char *into, size_t size)
{
    while (size > 0) {
        const ssize_t count = read(sock, into, size);
        if (count <= 0)
            return 0;
        into += count;
        size -= (size_t)count;
    }
    return 1;
}

int main(int argc, char **argv)
{
    static const char request[8];
    struct sockaddr_un address = {.sun_family = AF_UNIX};
    uint32_t header[2];
    char *payload;
    int sock;

    if (argc != 2 || strlen(argv[1]) >= sizeof address.sun_path)
        return 2;
    strcpy(address.sun_path, argv[1]);
    sock = socket(AF_UNIX, SOCK_STREAM, 0);
    if (sock == -1 || connect(sock, (const struct sockaddr *)&address, sizeof address) == -1)
        return 1;
    if (write(sock, request, sizeof request) != sizeof request)
        return 1;
    if (!receive(sock, (char *)header, sizeof header))
        return 1;
    payload = malloc(header[1]);
    if (payload == NULL || !receive(sock, payload, header[1]))
        return 1;
    return write(STDOUT_FILENO, payload, header[1]) != (ssize_t)header[1];
}
