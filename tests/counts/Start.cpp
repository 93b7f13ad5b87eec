// A program that does nothing but start and end.
int main()
{
    return 0;
}
