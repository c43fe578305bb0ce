// Measures the start of any C++ program.
int main() { return 0; }
