/* noop.c - a static program that starts and exits: the cost of one process
 * start, the unit the startup benchmark states kvn's time in. */
int main(void) { return 0; }
