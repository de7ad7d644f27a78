module vesk.example/framing

go 1.19
