// Placeholder until the host layer lands; replaced by the real example.
int main() { return 0; }
