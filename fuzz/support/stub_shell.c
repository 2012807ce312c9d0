/* The sandbox's /bin/sh: ends at once with status 0 and does nothing else.
 * Without the C library (no loader, no start-up code) it starts in about a
 * quarter of the time /bin/true takes, and the sandboxed targets start a
 * shell for every line the service runs. */
#if defined(__x86_64__)
void _start(void)
{
    __asm__ volatile("mov $60, %eax\n\txor %edi, %edi\n\tsyscall"); /* exit(0) */
}
#else
int main(void) { return 0; }
#endif
