// mkvelk: writes VELK release images for kor.
#include <cstdio>

int main()
{
    std::fputs("mkvelk: command line not available yet\n", stderr);
    return 1;
}
