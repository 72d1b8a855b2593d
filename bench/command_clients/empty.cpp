// What a program costs that does nothing.

int main() {}
