// A program that does nothing: the floor under every process.
int main() {
    return 0;
}
