/* Flips names between what they are and a symbolic link, on the Unix side, for the link-swap
 * tests: Wine cannot make a link from a Windows program, and renaming a link there moves what it
 * points to. Arguments: the loopback port the test listens on (Wine hands no pipes to a Unix
 * program), then one "name|aside|target" triple per name (Unix paths). Protocol, one line each
 * way: "go" starts flipping and is answered "on" once every name has been a link; "stop" puts
 * every name back and is answered "off <flips> <touches> <unlinks>"; "quit" or a closed
 * connection ends the program. While flipping, the folders the links lead to are watched:
 * "touches" counts every entry in them that anyone opened, created, changed or moved, the sign
 * of a program that reached through a link; "unlinks" counts entries removed without that. Wine 8's
 * server removes a file deleted through a handle by its path, after checking that the path still
 * leads to the same file, and a flip between that check and the removal redirects it: an unlink
 * the deleting program cannot prevent and the test tells apart this way.
 * Built for the machine that runs Wine, not for Windows. */
#define _GNU_SOURCE
#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

struct flip {
    const char* name;
    const char* aside;
    const char* target;
};

static void to_link(const struct flip* f) {
    if (rename(f->name, f->aside) == 0 || errno == ENOENT) (void)symlink(f->target, f->name);
}

static void to_real(const struct flip* f) {
    struct stat st;
    if (lstat(f->name, &st) == 0 && S_ISLNK(st.st_mode)) unlink(f->name);
    if (lstat(f->aside, &st) == 0) (void)rename(f->aside, f->name);
}

static int channel = -1;

/* Watches the folder of every link target (the target itself when it is a folder). */
static int watch_targets(const struct flip* flips, int count) {
    int fd = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (fd < 0) return -1;
    for (int i = 0; i < count; ++i) {
        char folder[4096];
        struct stat st;
        snprintf(folder, sizeof folder, "%s", flips[i].target);
        if (stat(folder, &st) != 0 || !S_ISDIR(st.st_mode)) {
            char* slash = strrchr(folder, '/');
            if (slash) *slash = 0;
        }
        (void)inotify_add_watch(fd, folder,
                                IN_OPEN | IN_CREATE | IN_MODIFY | IN_ATTRIB | IN_MOVED_FROM | IN_MOVED_TO | IN_DELETE);
    }
    return fd;
}

/* Counts the events on entries of the watched folders (events of a folder itself carry no name). */
static void drain(int fd, long* touches, long* unlinks) {
    union {
        struct inotify_event first; /* aligns the records */
        char bytes[16384];
    } buffer;
    for (;;) {
        ssize_t n = read(fd, buffer.bytes, sizeof buffer.bytes);
        if (n <= 0) return;
        for (char* at = buffer.bytes; at < buffer.bytes + n;) {
            const struct inotify_event* event = (const struct inotify_event*)at;
            if (event->len > 0 && !(event->mask & IN_ISDIR)) {
                if (event->mask & IN_DELETE)
                    ++*unlinks;
                else
                    ++*touches;
            }
            at += sizeof *event + event->len;
        }
    }
}

static int read_command(char* line, size_t size) {
    size_t n = 0;
    char c;
    while (read(channel, &c, 1) == 1) {
        if (c == '\n') {
            line[n] = 0;
            return 1;
        }
        if (n + 1 < size) line[n++] = c;
    }
    return 0;
}

static void answer(const char* text) {
    size_t length = strlen(text);
    if (write(channel, text, length) != (ssize_t)length) exit(1);
}

int main(int argc, char** argv) {
    if (argc < 2) return 2;
    struct sockaddr_in test = {0};
    test.sin_family = AF_INET;
    test.sin_port = htons((unsigned short)atoi(argv[1]));
    test.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    channel = socket(AF_INET, SOCK_STREAM, 0);
    if (channel < 0 || connect(channel, (struct sockaddr*)&test, sizeof test) != 0) return 3;
    struct flip* flips = calloc((size_t)argc, sizeof *flips);
    int count = 0;
    for (int i = 2; i < argc; ++i) {
        char* a = strchr(argv[i], '|');
        char* b = a ? strchr(a + 1, '|') : NULL;
        if (!b) return 2;
        *a = *b = 0;
        flips[count].name = argv[i];
        flips[count].aside = a + 1;
        flips[count].target = b + 1;
        ++count;
    }
    char line[64];
    while (read_command(line, sizeof line)) {
        if (strcmp(line, "go") != 0) break;
        long flipped = 0, touches = 0, unlinks = 0;
        const int watch = watch_targets(flips, count);
        for (int i = 0; i < count; ++i) to_link(&flips[i]);
        answer("on\n");
        int linked = 1;
        for (;;) {
            struct pollfd in = {channel, POLLIN, 0};
            if (poll(&in, 1, 0) > 0) break;
            for (int i = 0; i < count; ++i) linked ? to_real(&flips[i]) : to_link(&flips[i]);
            linked = !linked;
            ++flipped;
            if (watch >= 0) drain(watch, &touches, &unlinks);
            /* Leave the processor to the plug-in now and then: on two cores a flipper that never
             * yields slows every run it races down to a crawl. */
            sched_yield();
        }
        for (int i = 0; i < count; ++i) to_real(&flips[i]);
        if (watch >= 0) {
            drain(watch, &touches, &unlinks);
            close(watch);
        }
        if (watch < 0) touches = -1; /* unwatched: the test must not pass on it */
        if (!read_command(line, sizeof line) || strcmp(line, "stop") != 0) return 1;
        char reply[64];
        snprintf(reply, sizeof reply, "off %ld %ld %ld\n", flipped, touches, unlinks);
        answer(reply);
    }
    for (int i = 0; i < count; ++i) to_real(&flips[i]);
    return 0;
}
