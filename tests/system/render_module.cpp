// A module for system_tests to load.
extern "C" int MultiplyBySeven(int value);

int MultiplyBySeven(int value)
{
    return value * 7;
}
