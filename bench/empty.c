/* A program, and a shared object, that do nothing. */
int main(void) { return 0; }
