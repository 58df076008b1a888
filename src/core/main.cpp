// Process entry: placeholder until the server lands.
int main() { return 1; }
