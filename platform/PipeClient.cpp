// placeholder, being written
