// hold FILE: holds an exclusive record lock of the whole file until it is killed.
#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

int main(int argc, char **argv) {
  struct flock whole {};
  whole.l_type = F_WRLCK;
  const int fd = argc == 2 ? open(argv[1], O_RDWR | O_CREAT, 0666) : -1;
  if (fd < 0 || fcntl(fd, F_SETLKW, &whole) != 0) {
    perror("hold");
    return 1;
  }
  puts("held");
  (void)fflush(stdout);
  for (;;)
    pause();
}
