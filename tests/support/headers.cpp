/* Carries the headers that test programs share, compiled once. */
int main()
{
    return 0;
}
