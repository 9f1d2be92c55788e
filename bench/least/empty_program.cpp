// The least that a program can do: what starting a process costs.

int main()
{
    return 0;
}
