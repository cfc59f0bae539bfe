// Nothing: the headers that tests share are precompiled along with this file.
