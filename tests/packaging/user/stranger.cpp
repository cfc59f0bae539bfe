// A program of the user's that has nothing to do with the library.
int main() {}
