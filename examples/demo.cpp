// Demo of libtovrix_cmt: not written yet.
int main() { return 0; }
